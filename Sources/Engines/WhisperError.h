#pragma once

#include "Shared/Error.h"

// The Whisper engine's errors, in the order users meet them.
class WhisperError final : public Error {
public:
    enum class Case { transcriptionFailed, notInstalled, modelMissing };

    static WhisperError transcriptionFailed(QString detail) { return WhisperError(Case::transcriptionFailed, std::move(detail)); }
    static WhisperError notInstalled() { return WhisperError(Case::notInstalled, {}); }
    static WhisperError modelMissing() { return WhisperError(Case::modelMissing, {}); }

    Case errorCase() const { return m_case; }
    QString detail() const { return m_detail; }
    QString description() const override;
    std::shared_ptr<const Error> clone() const override { return std::make_shared<WhisperError>(*this); }

private:
    WhisperError(Case c, QString detail) : m_case(c), m_detail(std::move(detail)) {}

    Case m_case;
    QString m_detail;
};
