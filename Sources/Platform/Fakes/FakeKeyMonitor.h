#pragma once

#include "Platform/KeyMonitor.h"

#include <map>

// A scriptable key source: tests post flags-changed events and see which handlers are installed.
class FakeKeyMonitor final : public KeyMonitor {
public:
    Token addMonitor(Handler handler) override;
    void removeMonitor(Token token) override;

    int installedCount() const { return int(m_handlers.size()); }
    // Delivers one event to every installed handler, as the platform would on the main thread.
    void post(quint16 keyCode, quint64 modifierFlags, std::optional<KeyEventTime> time = std::nullopt);

private:
    std::map<Token, Handler> m_handlers;
    Token m_nextToken = 1;
};
