#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// The text of bytes that are valid UTF-8 throughout, or nothing: a program's output that is not
// UTF-8 is reported as such rather than shown with replacement characters.
std::optional<QString> decodeStrictUtf8(const QByteArray& bytes);

// whisper-cli's transcript as text. A character it cut in two at a segment's edge costs that
// character (a replacement character takes its place), never the transcript; the log says so.
QString decodeTranscript(const QByteArray& bytes);
