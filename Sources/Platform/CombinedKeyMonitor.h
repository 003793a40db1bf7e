#pragma once

#include "KeyMonitor.h"

#include <map>
#include <memory>
#include <vector>

// Several key sources heard as one, for sessions where each sees only part of the picture (the
// compositor's bindings and the keyboards themselves). A handler is installed on every source that
// can watch; the hotkey manager's own state makes a key reported down by two sources count once.
class CombinedKeyMonitor final : public KeyMonitor {
public:
    explicit CombinedKeyMonitor(std::vector<std::unique_ptr<KeyMonitor>> sources);

    // 0 only when no source could watch.
    Token addMonitor(Handler handler) override;
    void removeMonitor(Token token) override;
    void dictationKeyChanged() override;

private:
    std::vector<std::unique_ptr<KeyMonitor>> m_sources;
    // Per installed handler, its token on each source (0 where that source could not watch).
    std::map<Token, std::vector<Token>> m_installed;
    Token m_nextToken = 1;
};
