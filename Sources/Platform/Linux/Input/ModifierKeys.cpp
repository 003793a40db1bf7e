#include "ModifierKeys.h"

#include "Shared/Logging.h"

#include <vector>

std::optional<ModifierKey> modifierForX11Keycode(int keycode)
{
    switch (keycode) {
    case 108: return ModifierKey{61, 0x80000}; // right Alt / AltGr -> right Option
    case 64: return ModifierKey{58, 0x80000}; // left Alt -> left Option
    case 134: return ModifierKey{54, 0x100000}; // right Super -> right Command
    case 133: return ModifierKey{55, 0x100000}; // left Super -> left Command
    case 151: return ModifierKey{63, 0x800000}; // XF86WakeUp, where keyboards report Fn
    case 37: return ModifierKey{59, 0x40000}; // left Control
    case 105: return ModifierKey{62, 0x40000}; // right Control
    case 50: return ModifierKey{56, 0x20000}; // left Shift
    case 62: return ModifierKey{60, 0x20000}; // right Shift
    default: return std::nullopt;
    }
}

KeyHandlerList::KeyHandlerList(std::function<bool()> start, std::function<void()> stop)
    : m_start(std::move(start))
    , m_stop(std::move(stop))
{
}

KeyMonitor::Token KeyHandlerList::add(KeyMonitor::Handler handler)
{
    if (m_handlers.empty() && !m_start())
        return 0;
    const KeyMonitor::Token token = m_nextToken++;
    m_handlers.emplace(token, std::move(handler));
    return token;
}

void KeyHandlerList::remove(KeyMonitor::Token token)
{
    if (m_handlers.erase(token) != 0 && m_handlers.empty())
        m_stop();
}

void KeyHandlerList::deliver(const FlagsChangedEvent& event) const
{
    qCDebug(lcHotkey) << "flags changed: key" << event.keyCode << "flags" << Qt::hex << event.modifierFlags << Qt::dec << "at"
                      << event.time.value_or(0);
    std::vector<KeyMonitor::Token> tokens;
    for (const auto& [token, handler] : m_handlers)
        tokens.push_back(token);
    for (KeyMonitor::Token token : tokens) {
        auto found = m_handlers.find(token);
        if (found == m_handlers.end())
            continue;
        KeyMonitor::Handler handler = found->second;
        handler(event);
    }
}
