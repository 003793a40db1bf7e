#pragma once

#include <QPointer>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

// The application whose window has the keyboard focus. Main thread only.
class FrontApplication {
public:
    // The two halves of X11's WM_CLASS (instance and class); other platforms give the bundle id.
    struct WindowClass {
        QString instance;
        QString className;
        bool operator==(const WindowClass&) const = default;
    };

    // What was in front when asked.
    struct Answer {
        std::optional<QString> name;
        std::optional<WindowClass> windowClass;
        // A terminal hands a plain Control-V to its program as ^V and pastes on Control-Shift-V.
        bool isTerminal() const { return windowClass && FrontApplication::isTerminal(*windowClass); }
    };
    using AnswerHandler = std::function<void(const Answer&)>;

    virtual ~FrontApplication() = default;

    // Asks without waiting: `done` gets the answer on the main thread later, unless `context` is
    // gone by then. A compositor may take a while to answer; the main thread never waits for it.
    virtual void ask(QObject* context, AnswerHandler done) = 0;

    // The name a user knows the application by (its menu entry, in Portuguese when translated),
    // or nothing when no application is in front.
    virtual std::optional<QString> localizedName() = 0;
    // The window class of the focused top-level window, or nothing when none has one.
    virtual std::optional<WindowClass> windowClass() = 0;

    static bool isTerminal(const WindowClass& windowClass);

protected:
    // Hands `answer` to `done` on the main thread, from any thread, unless `context` (taken on the
    // main thread) is gone by then.
    static void answerLater(QPointer<QObject> context, AnswerHandler done, Answer answer);
};
