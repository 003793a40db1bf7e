#include "Dictation/HotkeyManager.h"
#include "Platform/CombinedKeyMonitor.h"
#include "Platform/Fakes/FakeKeyMonitor.h"
#include "Platform/Linux/X11/XInputKeyMonitor.h"

#include "TestSupport.h"
#include "XTestKeyboard.h"

#include <QKeyEvent>
#include <QWidget>
#include <QWindow>

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace {

// A manager over a given key source and chosen `key`, counting its callbacks and the times they gave.
struct Watched {
    explicit Watched(std::unique_ptr<KeyMonitor> source)
        : manager(std::move(source), [this] { return key; })
    {
        manager.onPress = [this](std::optional<KeyEventTime> time) { ++presses, pressedAt = time; };
        manager.onRelease = [this](std::optional<KeyEventTime> time) { ++releases, releasedAt = time; };
    }
    HotKey key = HotKey::rightOption;
    HotkeyManager manager;
    int presses = 0, releases = 0;
    std::optional<KeyEventTime> pressedAt, releasedAt;
};

// The focused window, which must get every key our monitor sees: nothing is grabbed.
class KeyReceiver : public QWidget {
public:
    QList<int> releasedKeys;

protected:
    void keyReleaseEvent(QKeyEvent* event) override { releasedKeys << int(event->nativeScanCode()); }
};

// The compositor's binding and the keyboard itself both report the key: one dictation, not two.
TEST(Hotkey, AKeyReportedByTwoSourcesCountsOnce)
{
    std::vector<std::unique_ptr<KeyMonitor>> sources;
    sources.push_back(std::make_unique<FakeKeyMonitor>());
    sources.push_back(std::make_unique<FakeKeyMonitor>());
    auto* first = static_cast<FakeKeyMonitor*>(sources[0].get());
    auto* second = static_cast<FakeKeyMonitor*>(sources[1].get());
    Watched watched(std::make_unique<CombinedKeyMonitor>(std::move(sources)));
    watched.manager.start();
    const HotKey key = HotKey::rightOption;
    for (FakeKeyMonitor* source : {first, second, first})
        source->post(key.keyCode(), key.modifierFlag());
    EXPECT_EQ(watched.presses, 1);
    for (FakeKeyMonitor* source : {second, first})
        source->post(key.keyCode(), 0);
    EXPECT_EQ(watched.releases, 1);
    watched.manager.stop();
    EXPECT_EQ(first->installedCount() + second->installedCount(), 0);
}

TEST(HotkeyOnX11, RightAltDictatesLeftAltOnlyKeepsTheFlagAChosenKeyCountsAtOnceAndAStopInACallbackHolds)
{
    if (!TestSupport::hasX11())
        VOXARIA_SKIP("needs an X display (run under scripts/with-harness.sh)");
    constexpr int rightAlt = 108, leftAlt = 64, rightSuper = 134, leftShift = 50;
    KeyReceiver receiver;
    receiver.resize(200, 100);
    receiver.show();
    ASSERT_TRUE(TestSupport::waitUntil([&] { return receiver.isVisible() && receiver.windowHandle()->isExposed(); }));
    XTestKeyboard::focus(receiver.winId());
    ASSERT_TRUE(TestSupport::waitUntil([&] { return XTestKeyboard::focusedWindow() == receiver.winId(); }));
    int seen = 0;
    auto source = std::make_unique<XInputKeyMonitor>();
    source->addMonitor([&](const FlagsChangedEvent&) { ++seen; });
    auto watched = std::make_unique<Watched>(std::move(source));
    watched->manager.start();
    // Sends key changes (keycode, down) and runs the event loop until the monitor has seen them.
    const auto send = [&](std::initializer_list<std::pair<int, bool>> changes) {
        for (const auto& [keycode, down] : changes)
            ASSERT_TRUE(down ? XTestKeyboard::press(keycode) : XTestKeyboard::release(keycode));
        const int expected = seen + int(changes.size());
        ASSERT_TRUE(TestSupport::waitUntil([&] { return seen >= expected; })) << "the monitor missed a key";
    };

    send({{leftAlt, true}, {leftAlt, false}, {rightAlt, true}, {leftShift, true}, {leftShift, false}});
    EXPECT_EQ(watched->presses, 1) << "only right Alt is the dictation key, and Shift does not restart it";
    send({{rightAlt, false}});
    EXPECT_EQ(watched->releases, 1);
    EXPECT_TRUE(TestSupport::waitUntil([&] { return receiver.releasedKeys.contains(rightAlt); })) << "the key was swallowed";
    send({{rightAlt, true}, {leftAlt, true}, {rightAlt, false}});
    EXPECT_EQ(watched->releases, 1) << "left Alt still holds the Option flag";
    send({{leftAlt, false}, {rightAlt, true}, {rightAlt, false}});
    EXPECT_EQ(std::pair(watched->presses, watched->releases), std::pair(2, 2));
    send({{rightSuper, true}, {rightSuper, false}});
    EXPECT_EQ(watched->presses, 2) << "right Super is not the chosen key yet";
    watched->key = HotKey::rightCommand;
    send({{rightSuper, true}, {rightSuper, false}});
    EXPECT_EQ(std::pair(watched->presses, watched->releases), std::pair(3, 3));

    // Held 0.4 s by the server's clock while this thread was busy: only the events' own times say so.
    ASSERT_TRUE(XTestKeyboard::tap(rightSuper, 400ms));
    ASSERT_TRUE(TestSupport::waitUntil([&] { return watched->releases == 4; }));
    ASSERT_TRUE(watched->pressedAt && watched->releasedAt);
    EXPECT_GE(KeyEventTime(*watched->releasedAt - *watched->pressedAt), 400u) << "the hold was timed by its handling";

    // Stopped from inside its callback, alone on its source (so closing the X connection whose event
    // is being handled), then started again.
    watched = std::make_unique<Watched>(std::make_unique<XInputKeyMonitor>());
    watched->manager.onPress = [&](std::optional<KeyEventTime>) { ++watched->presses, watched->manager.stop(); };
    watched->manager.start();
    ASSERT_TRUE(XTestKeyboard::tap(rightAlt, 50ms));
    ASSERT_TRUE(TestSupport::waitUntil([&] { return watched->presses == 1; }));
    watched->manager.onPress = [&](std::optional<KeyEventTime>) { ++watched->presses; };
    watched->manager.start();
    ASSERT_TRUE(XTestKeyboard::tap(rightAlt, 50ms));
    ASSERT_TRUE(TestSupport::waitUntil([&] { return watched->releases >= 1; }));
    EXPECT_EQ(watched->presses, 2);
    EXPECT_EQ(watched->releases, 1) << "a stopped manager saw the release";
}

}
