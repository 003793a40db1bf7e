#include "DesktopUrlOpener.h"

#include "Shared/Logging.h"

#include <QDesktopServices>

bool DesktopUrlOpener::open(const QUrl& url)
{
    if (QDesktopServices::openUrl(url))
        return true;
    qCWarning(lcApp) << "nothing on this desktop could open" << url.toString();
    return false;
}
