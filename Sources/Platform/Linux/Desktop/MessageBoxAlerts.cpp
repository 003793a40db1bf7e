#include "MessageBoxAlerts.h"

#include "Shared/Logging.h"

#include <QAbstractButton>
#include <QGuiApplication>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>

#include <algorithm>

namespace {

QMessageBox::ButtonRole messageBoxRole(Alerts::Button::Role role)
{
    switch (role) {
    case Alerts::Button::Role::destructive: return QMessageBox::DestructiveRole;
    case Alerts::Button::Role::cancel: return QMessageBox::RejectRole;
    case Alerts::Button::Role::standard: break;
    }
    return QMessageBox::AcceptRole;
}

}

int MessageBoxAlerts::runModal(const Alert& alert)
{
    QMessageBox box;
    box.setWindowTitle(QGuiApplication::applicationDisplayName());
    box.setText(alert.messageText);
    box.setInformativeText(alert.informativeText);
    // Our texts are never markup: one that merely contains "<html" (a server's error page quoted in
    // a failure) must not be taken for rich text and cut. Qt 6.4 applies the format to the main
    // text only, so the informative text's label is given it too.
    box.setTextFormat(Qt::PlainText);
    if (auto* informative = box.findChild<QLabel*>(QStringLiteral("qt_msgbox_informativelabel")))
        informative->setTextFormat(Qt::PlainText);
    // A tray program has no window in front; without this the alert can open behind the user's
    // current application and the modal loop would look like a hang.
    box.setWindowFlag(Qt::WindowStaysOnTopHint);

    QList<QAbstractButton*> buttons;
    for (const Button& button : alert.buttons)
        buttons.append(box.addButton(button.title, messageBoxRole(button.role)));
    if (buttons.isEmpty())
        buttons.append(box.addButton(QMessageBox::Ok));
    if (auto* first = qobject_cast<QPushButton*>(buttons.first()))
        box.setDefaultButton(first);
    // Closing the box (the window manager's close, Esc, or the program quitting, which Qt refuses
    // while a box cannot be closed) answers the cancelling button, else the last one.
    const auto cancel = std::find_if(
        alert.buttons.begin(), alert.buttons.end(), [](const Button& button) { return button.role == Button::Role::cancel; });
    const int escape = static_cast<int>(cancel != alert.buttons.end() ? cancel - alert.buttons.begin() : buttons.size() - 1);
    box.setEscapeButton(buttons[escape]);

    QTimer::singleShot(0, &box, [&box] {
        box.raise();
        box.activateWindow();
    });
    box.exec();

    const int chosen = static_cast<int>(buttons.indexOf(box.clickedButton()));
    if (chosen < 0)
        qCDebug(lcApp) << "Alert closed without a button:" << alert.messageText;
    return chosen >= 0 ? chosen : escape;
}
