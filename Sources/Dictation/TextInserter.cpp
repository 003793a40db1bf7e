#include "TextInserter.h"

#include "Shared/Logging.h"

#include <QCoreApplication>
#include <QTimer>

#include <vector>

namespace TextInserter {

namespace {

// Copies of every item, keeping each type that still gives data; the owner may lose the rest.
std::vector<Pasteboard::Item> saveContents(Pasteboard& pasteboard)
{
    std::vector<Pasteboard::Item> saved;
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

void restore(Pasteboard& pasteboard, const std::vector<Pasteboard::Item>& saved)
{
    pasteboard.clearContents();
    if (!saved.empty())
        pasteboard.writeItems(saved);
    qCDebug(lcInsert) << "Clipboard restored with" << saved.size() << "item(s)";
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

// The timers hang on the application object, so they run on the main thread; their blocks own
// what they touch, so nothing they hold can be gone when they fire.
template <typename Block>
void runLater(std::chrono::milliseconds delay, Block block)
{
    QTimer::singleShot(delay, Qt::PreciseTimer, QCoreApplication::instance(), std::move(block));
}

}

Target Target::system()
{
    return Target{Pasteboard::general(), KeyPoster::makeDefault(), Delays{}};
}

void insert(const QString& text)
{
    insert(text, Target::system());
}

void insert(const QString& text, const Target& target)
{
    if (text.isEmpty())
        return;
    std::shared_ptr<Pasteboard> pasteboard = target.pasteboard;
    auto saved = std::make_shared<const std::vector<Pasteboard::Item>>(saveContents(*pasteboard));
    pasteboard->clearContents();
    pasteboard->setString(text);
    qCDebug(lcInsert) << "Pasting" << text.size() << "characters; saved" << saved->size() << "clipboard item(s)";

    const Delays delays = target.delays;
    runLater(delays.beforePaste, [pasteboard, saved, keyPoster = target.keyPoster, delays] {
        postCommandV(*keyPoster);
        runLater(delays.beforeRestore, [pasteboard, saved] { restore(*pasteboard, *saved); });
    });
}

}
