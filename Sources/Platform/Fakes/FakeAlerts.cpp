#include "FakeAlerts.h"

int FakeAlerts::runModal(const Alert& alert)
{
    shown.append(alert);
    if (whileShown)
        whileShown(alert);
    const int lastButton = alert.buttons.isEmpty() ? 0 : static_cast<int>(alert.buttons.size() - 1);
    if (answers.isEmpty())
        return lastButton;
    const QString wanted = answers.takeFirst();
    for (qsizetype i = 0; i < alert.buttons.size(); ++i) {
        if (alert.buttons[i].title == wanted)
            return static_cast<int>(i);
    }
    return lastButton;
}
