#include "WhisperModelFile.h"

#include "ModelFileCheck.h"

#include <QFile>

bool WhisperModelFile::isCutShort(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)
        || ModelFileCheck::check(file, ModelFileCheck::Format::whisperGgml) != ModelFileCheck::Verdict::incomplete)
        return false;
    return ModelFileCheck::whisperTensorsStart(file) != file.size();
}
