#include "TextInserter.h"

#include "Shared/Logging.h"

#include <QCoreApplication>
#include <QPointer>
#include <QTimer>

#include <optional>
#include <utility>
#include <vector>

namespace TextInserter {

namespace {

using Contents = Pasteboard::Contents;

void postCommandV(KeyPoster& keyPoster, quint64 flags)
{
    std::optional<KeyPoster::KeyEvent> keyDown = keyPoster.makeKeyEvent(KeyPoster::virtualKeyV, true);
    std::optional<KeyPoster::KeyEvent> keyUp = keyDown ? keyPoster.makeKeyEvent(KeyPoster::virtualKeyV, false) : std::nullopt;
    if (!keyDown || !keyUp) {
        qCWarning(lcInsert) << "Could not synthesise the paste keys; the text stays unpasted";
        return;
    }
    keyDown->flags = flags;
    keyUp->flags = flags;
    keyPoster.post(*keyDown);
    keyPoster.post(*keyUp);
}

// Command stands for Control; a terminal passes a plain Control-V to its program as ^V and pastes
// on Control-Shift-V.
quint64 pasteFlags(bool terminal)
{
    return KeyPoster::commandFlag | (terminal ? KeyPoster::shiftFlag : 0);
}

// One dictation on its way into the focused application: the clipboard saved, the text put there,
// the paste after a short delay, then the clipboard put back. It hangs on the application object,
// so its timers run on the main thread, and quitting runs a restoration still ahead instead of
// letting the user's clipboard die with us (while the save runs nothing was replaced yet, so
// nothing needs putting back).
class Insertion final : public QObject {
public:
    // `earlier`: the insertion before this one, whose saved contents this one may take over.
    Insertion(const Target& target, const QString& text, std::function<void()> onPasted, Insertion* earlier)
        : QObject(QCoreApplication::instance())
        , m_target(target)
        , m_text(text)
        , m_onPasted(std::move(onPasted))
    {
        connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this, &Insertion::restore);
        // Until the earlier one has pasted, the clipboard is yet to hold its text: this one waits,
        // so neither pastes the other's words and the hand-over finds what the earlier saved.
        if (earlier && earlier->m_target.pasteboard == m_target.pasteboard && !earlier->m_pasted && !earlier->m_finished)
            earlier->m_follower = this;
        else
            save(earlier);
    }

private:
    bool restoresInto(const std::shared_ptr<Pasteboard>& pasteboard) const { return m_saved && m_target.pasteboard == pasteboard; }

    // What the restoration puts back: while an earlier dictation still waits to restore and the
    // clipboard holds its text, that earlier restoration's contents, so the last restoration brings
    // back what the user had, not an earlier dictation; else what the clipboard holds now, which
    // must be read before the text replaces it (an owner that lost the clipboard may be gone).
    void save(Insertion* earlier)
    {
        if (earlier && earlier->restoresInto(m_target.pasteboard)) {
            Contents handedOver = std::move(*earlier->m_saved);
            earlier->m_saved.reset();
            if (m_target.pasteboard->ownsContents()) {
                onSaved(std::move(handedOver));
                return;
            }
        }
        m_target.pasteboard->snapshot(this, [this](std::optional<Contents> saved) { onSaved(std::move(saved)); });
    }

    // Nothing saved when the owner answered nothing: the dictation is pasted all the same, and the
    // clipboard is left with it rather than emptied, since what it held could not be known.
    void onSaved(std::optional<Contents> saved)
    {
        if (m_finished)
            return;
        m_saved = std::move(saved);
        m_target.pasteboard->setString(m_text);
        if (m_saved)
            qCDebug(lcInsert) << "Pasting" << m_text.size() << "characters; will restore" << m_saved->size() << "clipboard item(s)";
        else
            qCWarning(lcInsert) << "The clipboard's owner gave none of its data; pasting" << m_text.size()
                                << "characters and leaving them on the clipboard, as what it held cannot be put back";
        QTimer::singleShot(m_target.delays.beforePaste, Qt::PreciseTimer, this, &Insertion::paste);
    }

    void paste()
    {
        if (m_finished)
            return;
        postCommandV(*m_target.keyPoster, pasteFlags(m_target.terminalInFront));
        m_pasted = true;
        if (m_onPasted)
            m_onPasted();
        QTimer::singleShot(m_target.delays.beforeRestore, Qt::PreciseTimer, this, &Insertion::restore);
        if (Insertion* follower = m_follower)
            follower->save(this);
    }

    void restore()
    {
        if (m_finished)
            return;
        m_finished = true;
        deleteLater();
        if (!m_saved)
            return;
        Pasteboard& pasteboard = *m_target.pasteboard;
        // A copy made elsewhere since the dictation is newer than what we saved: it stays.
        if (!pasteboard.ownsContents()) {
            qCDebug(lcInsert) << "The clipboard changed hands since the dictation; keeping the newer contents";
            return;
        }
        pasteboard.writeItems(*m_saved);
        qCDebug(lcInsert) << "Clipboard restored with" << m_saved->size() << "item(s)";
    }

    Target m_target;
    QString m_text;
    std::function<void()> m_onPasted;
    std::optional<Contents> m_saved;
    bool m_pasted = false;
    bool m_finished = false;
    // A newer insertion into the same clipboard waiting for this one's paste.
    QPointer<Insertion> m_follower;
};

// The newest insertion, while its restoration is ahead.
QPointer<Insertion> latest;

}

Mode modeOf(const SessionPlatform& platform)
{
    if (platform.pasteRoute() == SessionPlatform::PasteRoute::xwayland)
        return Mode::askingConsent;
    return platform.onlyCopies() ? Mode::copyOnly : Mode::paste;
}

Target Target::of(const SessionPlatform& platform)
{
    return Target{platform.pasteboard(), platform.keyPoster(), Delays{}, modeOf(platform)};
}

Mode insert(const QString& text, const Target& target, std::function<void()> onPasted)
{
    if (text.isEmpty())
        return target.mode;
    if (target.mode == Mode::copyOnly) {
        // Left for the user to paste: nothing is synthesised and nothing put back.
        target.pasteboard->setString(text);
        qCDebug(lcInsert) << "Copied" << text.size() << "characters for the user to paste";
        if (onPasted)
            onPasted();
        return target.mode;
    }
    // GNOME's dialog comes once per run of the program: the first paste after it waits for the
    // answer, the later ones are delivered at once.
    static bool consentAsked = false;
    if (target.mode == Mode::askingConsent && !std::exchange(consentAsked, true)) {
        Target waiting = target;
        waiting.delays.beforeRestore = target.delays.beforeRestoreAfterConsent;
        latest = new Insertion(waiting, text, std::move(onPasted), latest);
        return Mode::askingConsent;
    }
    latest = new Insertion(target, text, std::move(onPasted), latest);
    return Mode::paste;
}

}
