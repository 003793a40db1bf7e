#pragma once

#include <QObject>

// The window that transcribes a whole audio or video file, or the audio of a link.
class VideoTranscriptionWindow : public QObject {
    Q_OBJECT
public:
    static VideoTranscriptionWindow& shared();
    void show();
};
