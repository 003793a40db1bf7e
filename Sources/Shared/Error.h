#pragma once

#include <QByteArray>
#include <QString>

#include <exception>
#include <memory>

// The root of every failure a user may read. `description()` is the Portuguese text shown after
// "⚠️ "; engines throw these from start() and hand them to onError later.
class Error : public std::exception {
public:
    virtual QString description() const = 0;
    // A heap copy that keeps the dynamic type, so an error can travel through a queued callback.
    virtual std::shared_ptr<const Error> clone() const = 0;
    const char* what() const noexcept override;

private:
    mutable QByteArray m_what;
};

// An error raised by the platform's audio, file, process or speech services, passed on with the
// platform's own wording.
class PlatformError final : public Error {
public:
    explicit PlatformError(QString description)
        : m_description(std::move(description))
    {
    }
    QString description() const override { return m_description; }
    std::shared_ptr<const Error> clone() const override { return std::make_shared<PlatformError>(*this); }

private:
    QString m_description;
};
