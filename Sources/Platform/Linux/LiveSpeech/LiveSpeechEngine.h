#pragma once

#include "Platform/SpeechRecognizer.h"

#include <QString>

#include <chrono>
#include <memory>
#include <thread>

// The live engine's model and the worker thread that recognises on it: the model is loaded there
// when it is first needed (or asked for ahead by preload()), every recognition runs there in turn
// (the library runs one stream at a time, and texts of two dictations never mix), and the model is
// released once no dictation has used it for `idleRelease`, so an idle program stays small. Audio
// that arrives while the model loads waits in its request and is decoded once the model is ready.
//
// Destroying the engine stops the worker and waits for it, at most for the decoding step under
// way; a worker that is loading the model (which cannot be interrupted) is let go instead, so no
// caller ever waits for a load: it frees the model once loaded and ends, touching only its own state.
class LiveSpeechEngine {
public:
    static constexpr std::chrono::minutes defaultIdleRelease{10};

    explicit LiveSpeechEngine(QString modelPath, std::chrono::milliseconds idleRelease = defaultIdleRelease);
    ~LiveSpeechEngine();
    LiveSpeechEngine(const LiveSpeechEngine&) = delete;
    LiveSpeechEngine& operator=(const LiveSpeechEngine&) = delete;

    // The engine of the model the downloader installs, shared by every recogniser of the process.
    static std::shared_ptr<LiveSpeechEngine> forInstalledModel();

    const QString& modelPath() const { return m_modelPath; }
    // Starts loading the model on the worker unless it is loaded or loading; returns at once.
    void preload();
    // Whether the model is in memory now (loaded and not yet released).
    bool isLoaded() const;

    // A request for one recognition in a language the model knows, e.g. "pt-BR".
    std::shared_ptr<SpeechRecognizer::Request> makeRequest(const QString& language);
    // Queues the request's recognition; the handler runs on the worker.
    std::shared_ptr<SpeechRecognizer::Task> startTask(
        std::shared_ptr<SpeechRecognizer::Request> request, SpeechRecognizer::ResultHandler handler);

private:
    struct Mailbox;
    class Recognition;
    class Worker;

    void ensureWorker();

    const QString m_modelPath;
    const std::chrono::milliseconds m_idleRelease;
    std::shared_ptr<Mailbox> m_mailbox;
    std::thread m_thread;
};
