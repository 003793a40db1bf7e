#include "Engines/WhisperDevice.h"

#include "Shared/ProcessorCores.h"
#include "TestSupport.h"

#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

// The Vulkan module loads beside whisper-cli and computes on Mesa's software device when told to use
// it; unasked, ggml leaves a CPU-type Vulkan device alone (the CPU code is faster), and with no
// Vulkan driver at all whisper-cli stays on the CPU. Each run names its device as the dictation's
// log does. Greedy as a dictation, with the audio context cut so a software GPU takes seconds.
TEST(WhisperDevice, TheBundledWhisperCliRunsOnAVulkanDeviceWhenThereIsOneAndOnTheCpuWhenThereIsNone)
{
    const QString whisperCli = QStringLiteral(VOXARIA_BUILT_WHISPER_CLI);
    const QString model = QStringLiteral(VOXARIA_WHISPER_TEST_MODELS "/for-tests-ggml-tiny.bin");
    const QString module = QFileInfo(whisperCli).path() + "/libggml-vulkan.so";
    const QString lavapipe = "/usr/share/vulkan/icd.d/lvp_icd.x86_64.json";
    if (!QFileInfo::exists(whisperCli) || !QFileInfo::exists(model) || !QFileInfo::exists(module) || !QFileInfo::exists(lavapipe))
        VOXARIA_SKIP("needs whisper-cli built with its Vulkan module and Mesa's lavapipe (scripts/install-deps.sh build and test)");
    for (const auto& [icd, visible, device] :
        {std::tuple{lavapipe, "0", "Vulkan0"}, {lavapipe, "", "CPU"}, {QString("/nonexistent/icd.json"), "", "CPU"}}) {
        SCOPED_TRACE(device);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("VK_ICD_FILENAMES", icd);
        if (*visible)
            env.insert("GGML_VK_VISIBLE_DEVICES", visible);
        QTemporaryDir out;
        QProcess whisper;
        whisper.setProcessEnvironment(env);
        whisper.setStandardOutputFile(QProcess::nullDevice());
        whisper.start(whisperCli,
            {"-m", model, "-f", TestSupport::testDataPath("speech/jfk.wav"), "-l", "en", "-t", QString::number(ProcessorCores::physical()),
                "-bs", "1", "-bo", "1", "-nf", "-ac", "64", "-otxt", "-of", out.filePath("clip")});
        ASSERT_TRUE(whisper.waitForFinished(240000));
        const QByteArray log = whisper.readAllStandardError();
        EXPECT_EQ(whisper.exitCode(), 0) << log.toStdString();
        EXPECT_TRUE(QFileInfo::exists(out.filePath("clip.txt")));
        EXPECT_TRUE(log.contains("loaded Vulkan backend from " + module.toUtf8()) || device != QLatin1String("Vulkan0"));
        EXPECT_TRUE(WhisperDevice::fromLog(log).startsWith(device)) << WhisperDevice::fromLog(log).toStdString();
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
