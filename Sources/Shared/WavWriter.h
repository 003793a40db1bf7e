#pragma once

#include <QFile>
#include <QString>

// Writes 16-bit little-endian PCM into a canonical 44-byte-header RIFF/WAVE file. The header's
// sizes are patched by close(), after which the file is complete.
class WavWriter {
public:
    WavWriter(const QString& path, int sampleRate, int channelCount);
    ~WavWriter();

    // Creates the file with a provisional header; false (with errorString()) when it cannot.
    bool open();
    bool append(const qint16* samples, size_t count);
    // Writes the final sizes and closes; false (with errorString()) when the data or the header
    // could not be written out.
    bool close();
    // Closes leaving the provisional header (no data), for a file that was never completed.
    void abandon();
    QString errorString() const { return m_file.errorString(); }
    qint64 dataBytes() const { return m_dataBytes; }

private:
    bool writeHeader();

    QFile m_file;
    int m_sampleRate;
    int m_channelCount;
    qint64 m_dataBytes = 0;
};
