#pragma once

#include "Shared/Error.h"

#include <QString>
#include <QtGlobal>

#include <functional>
#include <memory>
#include <optional>
#include <span>

// The platform's live speech recogniser for one locale. A recognition is a request (the audio, fed
// while it is captured) and a task (the running decoding, reporting results as it goes).
class SpeechRecognizer {
public:
    // The only audio shape a request accepts: 16 kHz mono 16-bit samples.
    static constexpr int sampleRate = 16000;

    struct Result {
        QString text; // the whole hypothesis so far, never an increment
        bool isFinal = false;
    };
    // Runs on a thread of the recogniser's own; it may carry a result, an error, or both.
    using ResultHandler = std::function<void(std::optional<Result> result, std::shared_ptr<const Error> error)>;

    // The live audio of one recognition. Safe to feed from the capture thread.
    class Request {
    public:
        virtual ~Request() = default;
        virtual void append(std::span<const qint16> samples) = 0;
        // No more audio follows; the task then reports its final result.
        virtual void endAudio() = 0;
    };

    // A running recognition; once cancelled it reports nothing more.
    class Task {
    public:
        virtual ~Task() = default;
        virtual void cancel() = 0;
    };

    virtual ~SpeechRecognizer() = default;

    virtual bool isAvailable() const = 0;
    virtual bool supportsOnDeviceRecognition() const = 0;
    virtual std::shared_ptr<Request> makeRequest(bool requiresOnDeviceRecognition) = 0;
    virtual std::shared_ptr<Task> startTask(std::shared_ptr<Request> request, ResultHandler handler) = 0;
    // Gets ready for a first recognition ahead of time (the live engine loads its model, in the
    // background); returns at once.
    virtual void prepare() = 0;
};
