#pragma once

#include "FakeAccessibilityTrust.h"
#include "FakeFrontApplication.h"
#include "FakeKeyMonitor.h"
#include "FakeKeyPoster.h"
#include "FakePasteboard.h"
#include "Platform/SessionPlatform.h"

// A session whose backends are all fakes: an X11 session that pastes, unless the test says else.
class FakeSessionPlatform final : public SessionPlatform {
public:
    SessionInfo sessionInfo{SessionInfo::Kind::x11};
    KeySource source{QStringLiteral("XInput2"), true};
    PasteRoute route = PasteRoute::x11;
    Wording words{QStringLiteral("X11"), {}, QStringLiteral(", ou use uma sessão X11. ")};
    std::unique_ptr<FakeKeyMonitor> keyMonitor = std::make_unique<FakeKeyMonitor>();
    std::shared_ptr<FakePasteboard> fakePasteboard = std::make_shared<FakePasteboard>();
    std::shared_ptr<FakeKeyPoster> fakeKeyPoster = std::make_shared<FakeKeyPoster>();
    bool trusted = true;
    std::function<void()> secondLaunch; // what the program does when started again

    SessionInfo session() const override { return sessionInfo; }
    KeySource keySource() const override { return source; }
    PasteRoute pasteRoute() const override { return route; }
    Wording wording() const override { return words; }
    std::unique_ptr<KeyMonitor> takeKeyMonitor() override { return std::move(keyMonitor); }
    std::shared_ptr<Pasteboard> pasteboard() const override { return fakePasteboard; }
    std::shared_ptr<KeyPoster> keyPoster() const override { return fakeKeyPoster; }
    std::unique_ptr<FrontApplication> makeFrontApplication() const override { return std::make_unique<FakeFrontApplication>(); }
    std::unique_ptr<AccessibilityTrust> makeAccessibilityTrust() const override
    {
        auto trust = std::make_unique<FakeAccessibilityTrust>();
        trust->trusted = trusted;
        return trust;
    }
    void onSecondLaunch(std::function<void()> show) override { secondLaunch = std::move(show); }
};
