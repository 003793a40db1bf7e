#include "Dictation/HotkeyManager.h"
#include "Platform/Fakes/FakeKeyMonitor.h"
#include "App/Settings.h"

#include "TestSupport.h"
#include "XTestKeyboard.h"

#include <QKeyEvent>
#include <QWindow>
#include <QWidget>

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace {

constexpr quint64 optionFlag = 0x80000;
constexpr quint64 commandFlag = 0x100000;
constexpr quint64 functionFlag = 0x800000;
constexpr quint64 shiftFlag = 0x20000;
constexpr quint16 rightOption = 61;
constexpr quint16 leftOption = 58;
constexpr quint16 rightCommand = 54;
constexpr quint16 function = 63;
constexpr quint16 leftShift = 56;

// A manager over a given key source, counting its callbacks.
struct Watched {
    explicit Watched(std::unique_ptr<KeyMonitor> source)
        : manager(std::move(source))
    {
        manager.onPress = [this] { ++presses; };
        manager.onRelease = [this] { ++releases; };
    }
    HotkeyManager manager;
    int presses = 0;
    int releases = 0;
};

class HotkeyRules : public ::testing::Test {
protected:
    void SetUp() override
    {
        Settings::shared().setHotKey(HotKey::rightOption);
        auto fake = std::make_unique<FakeKeyMonitor>();
        keys = fake.get();
        watched = std::make_unique<Watched>(std::move(fake));
        watched->manager.start();
    }
    void TearDown() override { Settings::shared().setHotKey(HotKey::rightOption); }

    int presses() const { return watched->presses; }
    int releases() const { return watched->releases; }

    FakeKeyMonitor* keys = nullptr;
    std::unique_ptr<Watched> watched;
};

TEST_F(HotkeyRules, OnlyTheChosenKeyGivesOnePressAndOneRelease)
{
    keys->post(leftOption, optionFlag);
    keys->post(leftOption, 0);
    keys->post(rightCommand, commandFlag);
    keys->post(rightCommand, 0);
    EXPECT_EQ(presses(), 0);

    keys->post(rightOption, optionFlag);
    keys->post(rightOption, optionFlag); // a repeated "down" is not a second press
    keys->post(leftShift, optionFlag | shiftFlag); // Shift during a dictation neither ends nor restarts it
    keys->post(leftShift, optionFlag);
    EXPECT_EQ(presses(), 1);
    EXPECT_EQ(releases(), 0);
    keys->post(rightOption, 0);
    keys->post(rightOption, 0);
    EXPECT_EQ(presses(), 1);
    EXPECT_EQ(releases(), 1);
}

TEST_F(HotkeyRules, TheLeftTwinStillHoldingTheFlagHidesTheRelease)
{
    keys->post(rightOption, optionFlag);
    keys->post(leftOption, optionFlag);
    keys->post(rightOption, optionFlag); // right released, but left Alt keeps the Option flag set
    EXPECT_EQ(releases(), 0);
    keys->post(leftOption, 0);
    keys->post(rightOption, optionFlag); // pressed again: still the same dictation
    keys->post(rightOption, 0);
    EXPECT_EQ(presses(), 1);
    EXPECT_EQ(releases(), 1);
}

TEST_F(HotkeyRules, TheKeyChosenInTheMenuCountsFromTheNextEvent)
{
    Settings::shared().setHotKey(HotKey::rightCommand);
    keys->post(rightOption, optionFlag);
    keys->post(rightOption, 0);
    EXPECT_EQ(presses(), 0) << "right Alt must do nothing while right Super is chosen";
    keys->post(rightCommand, commandFlag);
    Settings::shared().setHotKey(HotKey::fn); // changed while right Super is held
    keys->post(rightCommand, 0);
    EXPECT_EQ(releases(), 0) << "the old key's release is no longer recognised";
    keys->post(function, functionFlag); // taken as nothing: the manager still thinks a key is down
    keys->post(function, 0);
    EXPECT_EQ(presses(), 1);
    EXPECT_EQ(releases(), 1);
    keys->post(function, functionFlag);
    EXPECT_EQ(presses(), 2);
}

TEST_F(HotkeyRules, StopForgetsAHeldKeySilentlyAndStartReplacesTheMonitor)
{
    keys->post(rightOption, optionFlag);
    watched->manager.stop();
    EXPECT_EQ(keys->installedCount(), 0);
    keys->post(rightOption, 0);
    EXPECT_EQ(releases(), 0);

    watched->manager.start();
    watched->manager.start();
    EXPECT_EQ(keys->installedCount(), 1);
    keys->post(rightOption, optionFlag);
    EXPECT_EQ(presses(), 2) << "after a restart the next press counts again, once";
}

// The real X11 source: keys pressed with XTest reach our monitor and the focused window alike.
class KeyReceiver : public QWidget {
public:
    QList<int> pressedKeys;
    QList<int> releasedKeys;

protected:
    void keyPressEvent(QKeyEvent* event) override { pressedKeys << int(event->nativeScanCode()); }
    void keyReleaseEvent(QKeyEvent* event) override { releasedKeys << int(event->nativeScanCode()); }
};

class HotkeyOnX11 : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!TestSupport::hasX11())
            GTEST_SKIP() << "needs an X display (run under scripts/with-harness.sh)";
        Settings::shared().setHotKey(HotKey::rightOption);
        receiver.setWindowTitle(QStringLiteral("receiver"));
        receiver.resize(200, 100);
        receiver.show();
        ASSERT_TRUE(TestSupport::waitUntil([&] { return receiver.isVisible() && receiver.windowHandle()->isExposed(); }));
        XTestKeyboard::focus(receiver.winId());
        ASSERT_TRUE(TestSupport::waitUntil([&] { return XTestKeyboard::focusedWindow() == receiver.winId(); }));
        watched = std::make_unique<Watched>(KeyMonitor::makeDefault());
        watched->manager.start();
    }
    void TearDown() override { Settings::shared().setHotKey(HotKey::rightOption); }

    // Holds a key for a moment and waits for the events to settle.
    void hold(int keycode)
    {
        ASSERT_TRUE(XTestKeyboard::press(keycode));
        TestSupport::spin(100ms);
        ASSERT_TRUE(XTestKeyboard::release(keycode));
        TestSupport::spin(150ms);
    }

    KeyReceiver receiver;
    std::unique_ptr<Watched> watched;
};

TEST_F(HotkeyOnX11, RightAltIsTheDefaultKeyAndStillReachesTheFocusedWindow)
{
    ASSERT_TRUE(XTestKeyboard::press(108));
    ASSERT_TRUE(TestSupport::waitUntil([&] { return watched->presses == 1; }, 2s));
    EXPECT_EQ(watched->releases, 0) << "no release while the key is held";
    ASSERT_TRUE(XTestKeyboard::release(108));
    ASSERT_TRUE(TestSupport::waitUntil([&] { return watched->releases == 1; }, 2s));
    TestSupport::spin(150ms);
    EXPECT_EQ(watched->presses, 1);
    EXPECT_EQ(watched->releases, 1);
    EXPECT_TRUE(receiver.pressedKeys.contains(108)) << "the key was swallowed";
    EXPECT_TRUE(receiver.releasedKeys.contains(108));
}

TEST_F(HotkeyOnX11, LeftAltOnlyKeepsTheOptionFlagAndRightSuperWorksOnceChosen)
{
    hold(64);
    EXPECT_EQ(watched->presses, 0);
    EXPECT_TRUE(receiver.pressedKeys.contains(64));

    ASSERT_TRUE(XTestKeyboard::press(108));
    ASSERT_TRUE(XTestKeyboard::press(64));
    ASSERT_TRUE(XTestKeyboard::release(108));
    TestSupport::spin(200ms);
    EXPECT_EQ(watched->releases, 0) << "left Alt still holds the Option flag";
    ASSERT_TRUE(XTestKeyboard::release(64));
    hold(108);
    EXPECT_EQ(watched->presses, 1);
    EXPECT_EQ(watched->releases, 1);

    hold(134);
    EXPECT_EQ(watched->presses, 1) << "right Super is not the chosen key yet";
    Settings::shared().setHotKey(HotKey::rightCommand);
    hold(134);
    EXPECT_EQ(watched->presses, 2);
    EXPECT_EQ(watched->releases, 2);
    EXPECT_TRUE(receiver.pressedKeys.contains(134));
}

TEST_F(HotkeyOnX11, StoppingFromInsideACallbackAndStartingAgainKeepsWorking)
{
    watched->manager.onPress = [this] {
        ++watched->presses;
        watched->manager.stop(); // closes the X connection whose event is being handled
    };
    hold(108);
    EXPECT_EQ(watched->presses, 1);
    EXPECT_EQ(watched->releases, 0) << "a stopped manager saw the release";

    watched->manager.onPress = [this] { ++watched->presses; };
    watched->manager.start();
    hold(108);
    EXPECT_EQ(watched->presses, 2);
    EXPECT_EQ(watched->releases, 1);
}

}
