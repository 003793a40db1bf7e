#pragma once

#include "Shared/Error.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

// The contract both dictation engines fulfil. The controller makes one engine per dictation and
// drives it only through these calls, all on the main thread; every callback also arrives on the
// main thread. Calling order: start, then finish (one of onFinal/onError follows) or cancel.
class TranscriptionEngine : public QObject {
    Q_OBJECT
public:
    using PartialCallback = std::function<void(const QString& textSoFar)>;
    using FinalCallback = std::function<void(const QString& text)>;
    using ErrorCallback = std::function<void(const Error& error)>;

    using QObject::QObject;

    // Opens the microphone and returns once it is capturing; throws an Error when it cannot, in
    // which case no callback is ever made for this dictation.
    virtual void start(PartialCallback onPartial, FinalCallback onFinal, ErrorCallback onError) = 0;
    // Stops recording at once; the result follows asynchronously.
    virtual void finish() = 0;
    // Stops everything and discards the dictation: neither onFinal nor onError follows.
    virtual void cancel() = 0;
    virtual bool providesPartials() const = 0;

    // Where a finished dictation's time went inside the engine, for the one timing line the
    // controller logs once the text is pasted: the engine's spans and a note, and the moment its
    // own work ended on a clock it started at key down.
    struct Timing {
        QString spans;
        QString note;
        QElapsedTimer clock;
        qint64 doneAt = 0;
    };
    // Valid once onFinal was made; engines that do not measure answer nothing.
    virtual std::optional<Timing> timing() const { return std::nullopt; }
};
