#include "QtTranslations.h"

#include "Logging.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QTranslator>

bool installQtTranslations()
{
    const QString folder = QLibraryInfo::path(QLibraryInfo::TranslationsPath);
    // The application keeps it for as long as it runs.
    auto* translator = new QTranslator(QCoreApplication::instance());
    // qtbase holds every text of the widgets Voxaria uses.
    if (!translator->load(QStringLiteral("qtbase_pt_BR"), folder) || !QCoreApplication::installTranslator(translator)) {
        qCWarning(lcApp).noquote() << "Qt's Portuguese translations (qtbase_pt_BR.qm, package qt6-translations-l10n) are not in" << folder
                                   << "- Qt's own dialogs and menus stay in English";
        delete translator;
        return false;
    }
    return true;
}
