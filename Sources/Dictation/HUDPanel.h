#pragma once

#include "Dictation/StatusDisplay.h"

#include <QList>
#include <QPoint>
#include <QRect>
#include <QString>

#include <memory>
#include <optional>

class QLabel;
class QVBoxLayout;
class QWidget;

// The small floating status display of a dictation: a dark rounded panel near the bottom centre of
// the screen holding the pointer, with a status (wrapped when wider than the panel, which then grows
// upward) and up to three lines of text under it.
// It never takes the focus, never activates the application and lets clicks through. It has no
// timers and never hides itself; its owner decides. Main thread only.
class HUDPanel final : public StatusDisplay {
public:
    static constexpr int width = 420;
    static constexpr int minimumHeight = 44;
    static constexpr int distanceAboveBottom = 80;
    static constexpr int maximumTextLines = 3;

    // A screen as placement sees it: its whole frame, and the part left by panels and docks.
    struct ScreenArea {
        QRect frame;
        QRect visibleFrame;
    };

    HUDPanel();
    ~HUDPanel() override;
    HUDPanel(const HUDPanel&) = delete;
    HUDPanel& operator=(const HUDPanel&) = delete;

    // Shows the status with the text under it (no second line when the text is empty) and brings
    // the panel to the front without taking the focus.
    void show(const QString& status, const QString& text) override;
    // Replaces the text and refits the panel; a hidden panel stays hidden.
    void update(const QString& text) override;
    void hide() override;

    // The on-screen surface, for looking at it (tests, screenshots).
    QWidget* panel() const;

    // Where a panel of `height` goes: on the first screen whose frame holds the pointer, else on
    // the main screen; nothing when there is no screen at all.
    static std::optional<QRect> placement(
        const QList<ScreenArea>& screens, const std::optional<ScreenArea>& mainScreen, QPoint pointer, int height);

private:
    void setText(const QString& text);
    void layoutAndPosition();
    int fittingHeight() const;

    std::unique_ptr<QWidget> m_panel;
    QLabel* m_statusLabel = nullptr;
    QLabel* m_textLabel = nullptr;
    QVBoxLayout* m_stack = nullptr;
};
