// CPU time to turn one second of 48 kHz stereo float (a typical desktop microphone) into the
// 16 kHz mono 16-bit that whisper-cli reads, buffer by buffer as a recording does.
#include "BenchClock.h"
#include "Platform/Linux/Audio/SoxrAudioConverter.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <vector>

int main()
{
    constexpr int kRate = 48000;
    constexpr int kFramesPerBuffer = 4096;
    constexpr int kSeconds = 120;
    std::vector<float> buffer(kFramesPerBuffer * 2);
    for (int i = 0; i < kFramesPerBuffer; ++i)
        buffer[2 * i] = buffer[2 * i + 1] = 0.3f * float(std::sin(2 * M_PI * 440 * i / kRate));
    const QByteArrayView bytes(reinterpret_cast<const char*>(buffer.data()), qsizetype(buffer.size() * sizeof(float)));

    auto converter = SoxrAudioConverter::make({kRate, 2, AudioFormat::SampleType::float32}, 16000);
    std::vector<qint16> out;
    out.reserve(8192);
    const int buffers = kSeconds * kRate / kFramesPerBuffer;
    const double begin = BenchClock::seconds(CLOCK_PROCESS_CPUTIME_ID);
    size_t produced = 0;
    for (int i = 0; i < buffers; ++i) {
        out.clear();
        converter->convert(bytes, out);
        produced += out.size();
    }
    const double spent = BenchClock::seconds(CLOCK_PROCESS_CPUTIME_ID) - begin;
    const double audioSeconds = double(buffers) * kFramesPerBuffer / kRate;
    std::printf("conversion 48 kHz stereo float -> 16 kHz mono s16: %.3f ms CPU per second of audio "
                "(target <= 2 ms; %zu samples out for %.1f s in)\n",
        spent * 1000 / audioSeconds, produced, audioSeconds);
    return 0;
}
