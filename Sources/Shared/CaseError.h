#pragma once

#include "Shared/Error.h"

#include <memory>
#include <utility>

// An error that is one of a few named cases, some of which carry a detail worded elsewhere (a
// program's last error line, a language code). `Derived` words each case in `description()`.
template <typename Derived, typename CaseType> class CaseError : public Error {
public:
    using Case = CaseType;

    std::shared_ptr<const Error> clone() const override { return std::make_shared<Derived>(static_cast<const Derived&>(*this)); }

protected:
    CaseError(Case kind, QString text)
        : m_case(kind)
        , m_detail(std::move(text))
    {
    }

    Case errorCase() const { return m_case; }
    const QString& detail() const { return m_detail; }

private:
    Case m_case;
    QString m_detail;
};
