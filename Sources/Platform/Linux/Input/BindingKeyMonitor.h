#pragma once

#include "CommandSocket.h"
#include "ModifierKeys.h"
#include "Platform/KeyMonitor.h"

#include <functional>
#include <memory>

// The dictation key as the compositor sees it: on Wayland, where no client may watch the keyboard,
// the user binds the key in the compositor to `voxaria --press` and `voxaria --release`, and those
// short-lived processes hand the command to the running program through its CommandSocket. The
// press and release commands are taken only while a handler is installed.
class BindingKeyMonitor final : public KeyMonitor {
public:
    // The key a command stands for: the dictation key chosen at that moment.
    using DictationKey = std::function<ModifierKey()>;

    BindingKeyMonitor(std::shared_ptr<CommandSocket> commands, DictationKey dictationKey);
    ~BindingKeyMonitor() override;

    Token addMonitor(Handler handler) override;
    void removeMonitor(Token token) override;

private:
    bool takeCommands();
    void leaveCommands();
    void deliver(bool pressed);

    std::shared_ptr<CommandSocket> m_commands;
    DictationKey m_dictationKey;
    KeyHandlerList m_handlers;
};
