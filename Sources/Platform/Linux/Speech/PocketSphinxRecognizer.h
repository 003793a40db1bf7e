#pragma once

#include "Platform/SpeechRecognizer.h"
#include "PocketSphinxModel.h"

#include <memory>
#include <vector>

// PocketSphinx behind the recogniser seam. Each task decodes on a worker thread of its own: it loads
// the model there (about half a second), while the request buffers whatever the microphone captured
// meanwhile, then reports the hypothesis as it grows and the final text once the audio ends.
// The loaded decoder is kept for the next dictation (see PocketSphinxDecoder). The recogniser owns
// its workers: its destruction stops them and waits, at most for the decoding step under way (0.1 s
// of audio, or what queued up during the load) or for a model load already under way, and no
// handler runs after it.
class PocketSphinxRecognizer final : public SpeechRecognizer {
public:
    explicit PocketSphinxRecognizer(PocketSphinxModel model);
    ~PocketSphinxRecognizer() override;

    bool isAvailable() const override { return true; }
    // Decoding never leaves the machine.
    bool supportsOnDeviceRecognition() const override { return true; }
    std::shared_ptr<Request> makeRequest(bool requiresOnDeviceRecognition) override;
    std::shared_ptr<Task> startTask(std::shared_ptr<Request> request, ResultHandler handler) override;

private:
    class Worker;

    PocketSphinxModel m_model;
    std::vector<std::unique_ptr<Worker>> m_workers;
};
