#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// The text of bytes that are valid UTF-8 throughout, or nothing: a program's output that is not
// UTF-8 is reported as such rather than shown with replacement characters.
std::optional<QString> decodeStrictUtf8(const QByteArray& bytes);
