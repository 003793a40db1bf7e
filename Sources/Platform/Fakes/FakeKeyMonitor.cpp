#include "FakeKeyMonitor.h"

#include <vector>

KeyMonitor::Token FakeKeyMonitor::addMonitor(Handler handler)
{
    const Token token = m_nextToken++;
    m_handlers.emplace(token, std::move(handler));
    return token;
}

void FakeKeyMonitor::removeMonitor(Token token)
{
    m_handlers.erase(token);
}

void FakeKeyMonitor::post(quint16 keyCode, quint64 modifierFlags, std::optional<KeyEventTime> time)
{
    std::vector<Handler> handlers;
    for (const auto& [token, handler] : m_handlers)
        handlers.push_back(handler);
    for (const Handler& handler : handlers)
        handler(FlagsChangedEvent{keyCode, modifierFlags, time});
}
