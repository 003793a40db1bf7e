#include "Engines/WhisperDevice.h"

#include "Shared/ProcessorCores.h"
#include "TestSupport.h"

#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

const QString kWhisper = QStringLiteral(VOXARIA_BUILT_WHISPER_CLI);
const QString kModel = QStringLiteral(VOXARIA_WHISPER_TEST_MODELS "/for-tests-ggml-tiny.bin");
const QString kLavapipe = "/usr/share/vulkan/icd.d/lvp_icd.x86_64.json";

struct CliRun {
    int exitCode = -1;
    QByteArray log;
    bool wroteText = false;
};

// The bundled whisper-cli on the test clip, greedy as a dictation runs it; the audio context is cut
// to 64 frames so a software GPU gets through the model in seconds.
CliRun transcribe(const QStringList& environment)
{
    QTemporaryDir out;
    QProcess whisper;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString& variable : environment)
        env.insert(variable.section(QLatin1Char('='), 0, 0), variable.section(QLatin1Char('='), 1));
    whisper.setProcessEnvironment(env);
    whisper.setStandardOutputFile(QProcess::nullDevice());
    whisper.start(kWhisper,
        {"-m", kModel, "-f", TestSupport::testDataPath("speech/jfk.wav"), "-l", "en", "-t", QString::number(ProcessorCores::physical()),
            "-bs", "1", "-bo", "1", "-nf", "-ac", "64", "-otxt", "-of", out.filePath("clip")});
    const bool ended = whisper.waitForFinished(240000);
    return {ended ? whisper.exitCode() : -1, whisper.readAllStandardError(), QFileInfo::exists(out.filePath("clip.txt"))};
}

}

// The Vulkan module loads beside whisper-cli and computes on Mesa's software device when told to use
// it; unasked, ggml leaves a CPU-type Vulkan device alone (the CPU code is faster), and with no
// Vulkan driver at all whisper-cli stays on the CPU. Each run names its device as the dictation's
// log does.
TEST(WhisperDevice, TheBundledWhisperCliRunsOnAVulkanDeviceWhenThereIsOneAndOnTheCpuWhenThereIsNone)
{
    if (!QFileInfo(kWhisper).isExecutable() || !QFileInfo::exists(kModel))
        VOXARIA_SKIP("whisper-cli is not built here (VOXARIA_BUILD_WHISPER_CLI=OFF or no whisper.cpp source)");
    const QString module = QFileInfo(kWhisper).path() + "/libggml-vulkan.so";
    if (!QFileInfo::exists(module))
        VOXARIA_SKIP("whisper-cli was built without its Vulkan module (scripts/install-deps.sh build installs what it needs)");
    if (!QFileInfo::exists(kLavapipe))
        VOXARIA_SKIP("Mesa's lavapipe is not installed (mesa-vulkan-drivers; scripts/install-deps.sh test)");

    const struct {
        QString icd;
        QStringList more;
        const char* device;
    } runs[] = {
        {kLavapipe, {"GGML_VK_VISIBLE_DEVICES=0"}, "Vulkan0"},
        {kLavapipe, {}, "CPU"},
        {"/nonexistent/icd.json", {}, "CPU"},
    };
    for (const auto& [icd, more, device] : runs) {
        SCOPED_TRACE(device);
        const CliRun run = transcribe(QStringList{"VK_ICD_FILENAMES=" + icd} + more);
        EXPECT_EQ(run.exitCode, 0) << run.log.toStdString();
        EXPECT_TRUE(run.wroteText);
        EXPECT_TRUE(run.log.contains("loaded Vulkan backend from " + module.toUtf8()) || device != QLatin1String("Vulkan0"));
        EXPECT_TRUE(WhisperDevice::fromLog(run.log).startsWith(device)) << WhisperDevice::fromLog(run.log).toStdString();
    }
}

// What no machine here shows: a GPU whose driver fails as whisper-cli starts it.
TEST(WhisperDevice, AGpuThatFailsToStartIsNamedBesideTheCpuThatTookOver)
{
    const QByteArray log = "load_backend: loaded Vulkan backend from /opt/voxaria/libggml-vulkan.so\n"
                           "load_backend: loaded CPU backend from /opt/voxaria/libggml-cpu-haswell.so\n"
                           "whisper_backend_init_gpu: device 0: Vulkan0 (type: 1)\n"
                           "whisper_backend_init_gpu: using Vulkan0 backend\n"
                           "whisper_backend_init_gpu: failed to initialize Vulkan0 backend\n";
    EXPECT_EQ(WhisperDevice::fromLog(log), "CPU (haswell; Vulkan0 failed to start)");
    EXPECT_EQ(WhisperDevice::fromLog("read_audio_data: read 352000 bytes\n"), "");
}
