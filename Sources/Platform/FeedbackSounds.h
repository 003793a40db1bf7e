#pragma once

#include "Platform/Sounds.h"

#include <functional>
#include <memory>
#include <utility>

// The feedback sounds as the user wants them: each play asks `enabled` first, so turning the sounds
// off in the menu silences the very next one. Main thread only.
class FeedbackSounds {
public:
    FeedbackSounds() = default;
    FeedbackSounds(std::shared_ptr<Sounds> sounds, std::function<bool()> enabled)
        : m_sounds(std::move(sounds))
        , m_enabled(std::move(enabled))
    {
    }

    void play(const QString& name) const
    {
        if (m_sounds && m_enabled())
            m_sounds->play(name);
    }

private:
    std::shared_ptr<Sounds> m_sounds;
    std::function<bool()> m_enabled;
};
