#include "CombinedKeyMonitor.h"

#include <algorithm>

CombinedKeyMonitor::CombinedKeyMonitor(std::vector<std::unique_ptr<KeyMonitor>> sources)
    : m_sources(std::move(sources))
{
}

KeyMonitor::Token CombinedKeyMonitor::addMonitor(Handler handler)
{
    std::vector<Token> tokens;
    for (const auto& source : m_sources)
        tokens.push_back(source->addMonitor(handler));
    if (std::all_of(tokens.begin(), tokens.end(), [](Token token) { return token == 0; }))
        return 0;
    const Token token = m_nextToken++;
    m_installed.emplace(token, std::move(tokens));
    return token;
}

void CombinedKeyMonitor::removeMonitor(Token token)
{
    auto found = m_installed.find(token);
    if (found == m_installed.end())
        return;
    for (size_t i = 0; i < m_sources.size(); ++i) {
        if (found->second[i] != 0)
            m_sources[i]->removeMonitor(found->second[i]);
    }
    m_installed.erase(found);
}

void CombinedKeyMonitor::dictationKeyChanged()
{
    for (const auto& source : m_sources)
        source->dictationKeyChanged();
}
