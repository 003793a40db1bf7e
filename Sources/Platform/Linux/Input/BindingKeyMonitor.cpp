#include "BindingKeyMonitor.h"

#include "Shared/Logging.h"

BindingKeyMonitor::BindingKeyMonitor(std::shared_ptr<CommandSocket> commands, DictationKey dictationKey)
    : m_commands(std::move(commands))
    , m_dictationKey(std::move(dictationKey))
    , m_handlers([this] { return takeCommands(); }, [this] { leaveCommands(); })
{
}

BindingKeyMonitor::~BindingKeyMonitor()
{
    leaveCommands();
}

KeyMonitor::Token BindingKeyMonitor::addMonitor(Handler handler)
{
    return m_handlers.add(std::move(handler));
}

void BindingKeyMonitor::removeMonitor(Token token)
{
    m_handlers.remove(token);
}

bool BindingKeyMonitor::takeCommands()
{
    if (!m_commands->setHandler(CommandSocket::Command::press, [this] { deliver(true); })
        || !m_commands->setHandler(CommandSocket::Command::release, [this] { deliver(false); })) {
        leaveCommands();
        return false;
    }
    qCInfo(lcHotkey).noquote() << "watching modifier keys through compositor bindings (voxaria --press / --release)";
    return true;
}

void BindingKeyMonitor::leaveCommands()
{
    m_commands->setHandler(CommandSocket::Command::press, nullptr);
    m_commands->setHandler(CommandSocket::Command::release, nullptr);
}

void BindingKeyMonitor::deliver(bool pressed)
{
    const ModifierKey key = m_dictationKey();
    // No time: the binding's process starts too late for its clock to say how long the key was held.
    m_handlers.deliver(FlagsChangedEvent{key.virtualKeyCode, pressed ? key.flag : 0, std::nullopt});
}
