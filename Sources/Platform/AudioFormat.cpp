#include "AudioFormat.h"

int AudioFormat::bytesPerSample() const
{
    switch (sampleType) {
    case SampleType::uint8: return 1;
    case SampleType::int16: return 2;
    case SampleType::int32: return 4;
    case SampleType::float32: return 4;
    case SampleType::unknown: return 0;
    }
    return 0;
}
