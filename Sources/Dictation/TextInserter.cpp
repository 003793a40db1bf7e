#include "TextInserter.h"

#include "Shared/Logging.h"

#include <QCoreApplication>
#include <QPointer>
#include <QTimer>

#include <optional>
#include <vector>

namespace TextInserter {

namespace {

using Contents = std::vector<Pasteboard::Item>;

// Copies of every item, keeping each type that still gives data; the owner may lose the rest.
Contents saveContents(Pasteboard& pasteboard)
{
    Contents saved;
    const int count = pasteboard.itemCount();
    saved.reserve(size_t(count));
    for (int index = 0; index < count; ++index) {
        Pasteboard::Item copy;
        for (const QString& type : pasteboard.types(index)) {
            if (const std::optional<QByteArray> data = pasteboard.data(index, type))
                copy.setData(type, *data);
            else
                qCDebug(lcInsert) << "Clipboard type" << type << "gave no data; it will not come back";
        }
        saved.push_back(std::move(copy));
    }
    return saved;
}

void putText(Pasteboard& pasteboard, const QString& text)
{
    pasteboard.clearContents();
    pasteboard.setString(text);
}

void postCommandV(KeyPoster& keyPoster)
{
    std::optional<KeyPoster::KeyEvent> keyDown = keyPoster.makeKeyEvent(KeyPoster::virtualKeyV, true);
    std::optional<KeyPoster::KeyEvent> keyUp =
        keyDown ? keyPoster.makeKeyEvent(KeyPoster::virtualKeyV, false) : std::nullopt;
    if (!keyDown || !keyUp) {
        qCWarning(lcInsert) << "Could not synthesise the paste keys; the text stays unpasted";
        return;
    }
    keyDown->flags = KeyPoster::commandFlag;
    keyUp->flags = KeyPoster::commandFlag;
    keyPoster.post(*keyDown);
    keyPoster.post(*keyUp);
}

// One dictation on its way into the focused application: the paste after a short delay, then the
// clipboard put back. It hangs on the application object, so its timers run on the main thread,
// and quitting runs a restoration still ahead instead of letting the user's clipboard die with us.
class Insertion final : public QObject {
public:
    Insertion(const Target& target, Contents saved)
        : QObject(QCoreApplication::instance()), m_target(target), m_saved(std::move(saved))
    {
        connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this, &Insertion::restore);
        QTimer::singleShot(m_target.delays.beforePaste, Qt::PreciseTimer, this, &Insertion::paste);
    }

    bool restoresInto(const std::shared_ptr<Pasteboard>& pasteboard) const
    {
        return m_saved && m_target.pasteboard == pasteboard;
    }

    // A newer insertion into the same clipboard puts these contents back in this one's stead, so
    // the last restoration brings back what the user had, not an earlier dictation.
    Contents handOver()
    {
        Contents saved = std::move(*m_saved);
        m_saved.reset();
        return saved;
    }

private:
    void paste()
    {
        if (m_finished)
            return;
        postCommandV(*m_target.keyPoster);
        QTimer::singleShot(m_target.delays.beforeRestore, Qt::PreciseTimer, this, &Insertion::restore);
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
        pasteboard.clearContents();
        if (!m_saved->empty())
            pasteboard.writeItems(*m_saved);
        qCDebug(lcInsert) << "Clipboard restored with" << m_saved->size() << "item(s)";
    }

    Target m_target;
    std::optional<Contents> m_saved;
    bool m_finished = false;
};

// The newest insertion, while its restoration is ahead.
QPointer<Insertion> latest;

// What the restoration of a new dictation puts back: while an earlier dictation still waits to
// restore and the clipboard holds its text, that earlier restoration's contents; else what the
// clipboard holds now.
Contents contentsToRestore(const std::shared_ptr<Pasteboard>& pasteboard)
{
    if (latest && latest->restoresInto(pasteboard)) {
        Contents earlier = latest->handOver();
        if (pasteboard->ownsContents())
            return earlier;
    }
    return saveContents(*pasteboard);
}

}

Target Target::of(const SessionPlatform& platform)
{
    return Target{platform.pasteboard(), platform.keyPoster(), Delays{}, platform.onlyCopies() ? Mode::copyOnly : Mode::paste};
}

Mode insert(const QString& text, const Target& target)
{
    if (text.isEmpty())
        return target.mode;
    if (target.mode == Mode::copyOnly) {
        // Left for the user to paste: nothing is synthesised and nothing put back.
        putText(*target.pasteboard, text);
        qCDebug(lcInsert) << "Copied" << text.size() << "characters for the user to paste";
        return target.mode;
    }
    Contents saved = contentsToRestore(target.pasteboard);
    putText(*target.pasteboard, text);
    qCDebug(lcInsert) << "Pasting" << text.size() << "characters; will restore" << saved.size() << "clipboard item(s)";
    latest = new Insertion(target, std::move(saved));
    return target.mode;
}

}
