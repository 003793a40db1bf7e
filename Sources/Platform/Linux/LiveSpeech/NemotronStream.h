#pragma once

#include <QString>

#include <atomic>
#include <memory>
#include <optional>
#include <span>

// The Nemotron model loaded by transcribe.cpp and the one stream it runs at a time. Used by one
// thread at a time (the live engine's worker); nothing else of the library is seen outside this file.
class NemotronStream {
public:
    NemotronStream();
    ~NemotronStream();
    NemotronStream(const NemotronStream&) = delete;
    NemotronStream& operator=(const NemotronStream&) = delete;

    // Loads the model file; on failure returns the message the dictation shows and stays unloaded.
    std::optional<QString> load(const QString& path);
    bool isLoaded() const;
    // Frees the model and its session: the memory goes back to the system.
    void release();

    // Starts a recognition in a language such as "pt-BR". While it runs, `cancelled` is watched
    // between decoding steps: once true the step under way stops early. On failure returns the reason.
    std::optional<QString> begin(const char* language, const std::atomic_bool* cancelled);
    // 16 kHz mono samples; the reason when decoding failed (a cancelled step is no failure).
    std::optional<QString> feed(std::span<const float> samples);
    // No more audio: decodes what the model still held back for its lookahead.
    std::optional<QString> finalize();
    // Drops the recognition under way, if any.
    void abandon();

    // The whole text so far: the words the model committed to, then the ones it may still revise.
    QString text() const;
    // After finalize(): the model's final transcript.
    QString finalText() const;

private:
    struct Handles;
    std::unique_ptr<Handles> m;
};
