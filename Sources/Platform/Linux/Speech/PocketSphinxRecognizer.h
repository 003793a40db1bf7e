#pragma once

#include "PocketSphinxModel.h"
#include "Platform/SpeechRecognizer.h"

// PocketSphinx behind the recogniser seam. Each task decodes on a worker of its own: it loads the
// model there (about half a second), while the request buffers whatever the microphone captured
// meanwhile, then reports the hypothesis as it grows and the final text once the audio ends.
// The loaded decoder is kept for the next dictation (see PocketSphinxDecoderCache).
class PocketSphinxRecognizer final : public SpeechRecognizer {
public:
    explicit PocketSphinxRecognizer(PocketSphinxModel model) : m_model(std::move(model)) {}

    bool isAvailable() const override { return true; }
    // Decoding never leaves the machine.
    bool supportsOnDeviceRecognition() const override { return true; }
    std::shared_ptr<Request> makeRequest(bool requiresOnDeviceRecognition) override;
    std::shared_ptr<Task> startTask(std::shared_ptr<Request> request, ResultHandler handler) override;

private:
    PocketSphinxModel m_model;
};
