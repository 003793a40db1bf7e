#pragma once

#include "HeadlessCompositor.h"

// KDE Plasma's compositor with no screen (a plain copy of kwin_wayland --virtual: containers refuse
// the packaged binary's file capability) in a D-Bus session of its own, where it also serves
// kglobalaccel. The Voxaria under test must run as its user: the session bus answers no other.
class HeadlessKWin final : public HeadlessCompositor {
public:
    static QString unavailableReason(); // empty when KWin can run here
    static bool available() { return unavailableReason().isEmpty(); }

    // `keyboardLayout`: the XKB layout its keyboard types with ("br": Right Alt is AltGr), with its
    // variant in parentheses ("us(dvorak)").
    explicit HeadlessKWin(const QString& keyboardLayout);
    ~HeadlessKWin() override;

    // Starts KWin and waits until its Wayland socket and kglobalaccel answer.
    bool start() override;
    // No DISPLAY: this KWin runs no Xwayland.
    QProcessEnvironment sessionVariables() const override;

    // A desktop file where KWin looks for who may use its restricted protocols (best before start()).
    bool installApplication(const QString& fileName, const QByteArray& desktopEntry);
    // Types through fake input: +CODE presses, -CODE releases, MILLISECONDS waits.
    bool pressKeys(const QStringList& steps) { return run(QStringList{filePath("fakeinputkeys")} + steps, true).has_value(); }

private:
    QString m_keyboardLayout;
    QString m_busAddress;
};
