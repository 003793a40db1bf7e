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

std::string name(Verdict verdict)
{
    return verdict == Verdict::complete ? "complete" : verdict == Verdict::incomplete ? "incomplete" : "invalid";
}

// Cut anywhere — in the header, the vocabulary or metadata, a tensor's description or its data —
// a file is a start to continue; one byte more than its structure allows, and it is no model.
void expectEveryCutIncomplete(const QByteArray& file, Format format)
{
    EXPECT_EQ(name(check(file, format)), "complete");
    EXPECT_EQ(name(check(file + '\0', format)), "invalid");
    for (qint64 length = 0; length < file.size(); length += length < 4096 ? 1 : 4093)
        ASSERT_EQ(name(check(file.left(length), format)), "incomplete") << "cut at " << length << " of " << file.size();
    EXPECT_EQ(name(check(file.left(file.size() - 1), format)), "incomplete");
}

TEST(ModelFileCheckTest, AWhisperModelIsWholeOnlyWithEveryTensorToTheLastByte)
{
    expectEveryCutIncomplete(ModelFiles::whisper(3 << 20), Format::whisperGgml);

    const QByteArray model = ModelFiles::whisper(64 << 10);
    QByteArray fiveDimensions = model;
    fiveDimensions[kTensorsStart] = 5; // the first tensor's dimension count
    const QByteArray page = "<html><body>Not Found</body></html>";
    for (const QByteArray& other : {page, QByteArray("GGUF").append(model.mid(4)), fiveDimensions})
        EXPECT_EQ(name(check(other, Format::whisperGgml)), "invalid") << other.left(40).toStdString();
}

// whisper-cli answers nothing for a model cut inside its vocabulary or first tensor, so a dictation
// that came back empty asks whether the model is cut short; whisper.cpp's own test models end
// exactly where their tensors would begin and are not, nor is a file of another format.
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

// (whisper.cpp's own copy of the real one goes through the downloader's tests.)
TEST(ModelFileCheckTest, AVoiceActivityModelIsWholeWithTheTensorsItsLayersCallFor)
{
    expectEveryCutIncomplete(ModelFiles::voiceActivity(), Format::voiceActivityGgml);
    EXPECT_EQ(name(check(ModelFiles::whisper(64 << 10), Format::voiceActivityGgml)), "invalid");
}

TEST(ModelFileCheckTest, AGgufFileEndsWhereItsAlignedTensorDataDoes)
{
    using Tensor = ModelFiles::GgufTensor;
    // Tensors whose sizes are no multiple of the alignment, so the padding after each one counts.
    const QList<Tensor> tensors{{{3, 5}}, {{64, 3}, 8}, {{7}, 1}, {{2, 2, 2, 3}}};
    expectEveryCutIncomplete(ModelFiles::gguf(tensors), Format::gguf);
    expectEveryCutIncomplete(ModelFiles::gguf(tensors, 64), Format::gguf);
    EXPECT_EQ(name(check(ModelFiles::gguf({}), Format::gguf)), "complete");

    QByteArray version1 = ModelFiles::gguf(tensors);
    version1[4] = 1;
    const struct {
        QByteArray file;
        const char* why;
    } others[] = {
        {ModelFiles::gguf(tensors, 48), "an alignment that is no power of two"},
        {ModelFiles::gguf({{{33, 2}, 8}}), "a row that is no whole number of q8_0 blocks"},
        {ModelFiles::gguf({{{4}, 4}}), "a type that no longer exists"},
        {version1, "version 1"},
        {ModelFiles::whisper(64 << 10), "a ggml file"},
    };
    for (const auto& other : others)
        EXPECT_EQ(name(check(other.file, Format::gguf)), "invalid") << other.why;
}

}
