#include "VideoTranscriptionWindow.h"

#include "Shared/Logging.h"

VideoTranscriptionWindow& VideoTranscriptionWindow::shared()
{
    static VideoTranscriptionWindow window;
    return window;
}

void VideoTranscriptionWindow::show()
{
    qCInfo(lcApp) << "the video transcription window is not built yet";
}
