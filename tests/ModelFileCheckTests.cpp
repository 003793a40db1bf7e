#include "Engines/ModelFileCheck.h"
#include "Engines/WhisperModelFile.h"
#include "ModelFiles.h"
#include "TestSupport.h"

#include <QBuffer>
#include <QDir>

#include <gtest/gtest.h>

namespace {

using Format = ModelFileCheck::Format;
using Verdict = ModelFileCheck::Verdict;

Verdict check(QByteArray bytes, Format format)
{
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    return ModelFileCheck::check(buffer, format);
}

// Where the tensors of ModelFiles::whisper begin: after the header, 2 × 3 mel filters and four words.
constexpr qsizetype kTensorsStart = 48 + 8 + 24 + 4 + 4 * 4 + 1 + 2 + 4;

// Cut anywhere — in the header, the vocabulary or metadata, a tensor's description or its data —
// a file is a start to continue; one byte more than its structure allows, and it is no model.
void expectEveryCutIncomplete(const QByteArray& file, Format format)
{
    EXPECT_EQ(check(file, format), Verdict::complete);
    EXPECT_EQ(check(file + '\0', format), Verdict::invalid);
    for (qint64 length = 0; length < file.size(); length += length < 4096 ? 1 : 4093)
        ASSERT_EQ(check(file.left(length), format), Verdict::incomplete) << "cut at " << length << " of " << file.size();
    EXPECT_EQ(check(file.left(file.size() - 1), format), Verdict::incomplete);
}

TEST(ModelFileCheckTest, AModelIsWholeOnlyToTheLastByteItsStructureCallsFor)
{
    // GGUF tensors whose sizes are no multiple of the alignment, so the padding after each one counts.
    const QList<ModelFiles::GgufTensor> tensors{{{3, 5}}, {{64, 3}, 8}, {{7}, 1}, {{2, 2, 2, 3}}};
    expectEveryCutIncomplete(ModelFiles::whisper(3 << 20), Format::whisperGgml);
    expectEveryCutIncomplete(ModelFiles::voiceActivity(), Format::voiceActivityGgml);
    expectEveryCutIncomplete(ModelFiles::gguf(tensors), Format::gguf);
    expectEveryCutIncomplete(ModelFiles::gguf(tensors, 64), Format::gguf);
    EXPECT_EQ(check(ModelFiles::gguf({}), Format::gguf), Verdict::complete);

    const QByteArray whisper = ModelFiles::whisper(64 << 10);
    const struct {
        QByteArray file;
        Format format;
        const char* why;
    } others[] = {
        {QByteArray("GGUF").append(whisper.mid(4)), Format::whisperGgml, "another magic number"},
        {QByteArray(whisper).replace(kTensorsStart, 1, "\x05"), Format::whisperGgml, "a first tensor of five dimensions"},
        {whisper, Format::voiceActivityGgml, "a Whisper model"},
        {ModelFiles::gguf(tensors, 48), Format::gguf, "an alignment that is no power of two"},
        {ModelFiles::gguf({{{33, 2}, 8}}), Format::gguf, "a row that is no whole number of q8_0 blocks"},
        {ModelFiles::gguf({{{4}, 4}}), Format::gguf, "a type that no longer exists"},
        {ModelFiles::gguf(tensors).replace(4, 1, "\x01"), Format::gguf, "version 1"},
    };
    for (const auto& other : others)
        EXPECT_EQ(check(other.file, other.format), Verdict::invalid) << other.why;
}

// A dictation that came back empty asks whether the model is cut short: anywhere but exactly where its
// tensors begin, where whisper.cpp's own test models end; a file of another format is not.
TEST(ModelFileCheckTest, AWhisperModelIsCutShortAnywhereButWhereItsTensorsBegin)
{
    const QByteArray model = ModelFiles::whisper(64 << 10);
    const QString path = QDir::temp().filePath("ggml-model.bin");
    // Every cut through the header, the vocabulary and the first tensors, and some through the last one.
    QList<qsizetype> cuts{model.size() / 2, model.size() - 1, model.size()};
    for (qsizetype length = 1; length < 1024; ++length)
        cuts << length;
    for (const qsizetype length : cuts) {
        ASSERT_TRUE(TestSupport::writeFile(path, model.left(length)));
        ASSERT_EQ(WhisperModelFile::isCutShort(path), length != kTensorsStart && length != model.size()) << "cut at " << length;
    }
    for (const QByteArray& other : {QByteArray("<html>Not Found</html>"), model + 'x'}) {
        ASSERT_TRUE(TestSupport::writeFile(path, other));
        EXPECT_FALSE(WhisperModelFile::isCutShort(path)) << other.left(20).toStdString();
    }
    EXPECT_FALSE(WhisperModelFile::isCutShort(path + ".missing"));
}

}
