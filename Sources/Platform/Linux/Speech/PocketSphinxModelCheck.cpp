#include "PocketSphinxModelCheck.h"

#include "Shared/Logging.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QProcess>

namespace {

constexpr int kStepMilliseconds = 100;

// Kills the helper and waits for it, so no child outlives the check.
void stop(QProcess& helper)
{
    helper.kill();
    helper.waitForFinished(-1);
}

}

QString PocketSphinxModelCheck::helperPath()
{
    QString chosen = qEnvironmentVariable("VOXARIA_MODEL_CHECK");
    if (!chosen.isEmpty())
        return chosen;
    return QCoreApplication::applicationDirPath() + QStringLiteral("/voxaria-model-check");
}

PocketSphinxModelCheck::Verdict PocketSphinxModelCheck::of(const PocketSphinxModel& model, const std::function<bool()>& stopRequested)
{
    const QString program = helperPath();
    // Our own installation is broken, not the user's model: it is loaded as it is, unchecked.
    if (!QFileInfo(program).isExecutable()) {
        qCWarning(lcSpeech) << "the model check" << program << "is missing; loading" << model.acousticModel << "without it";
        return Verdict::unchecked;
    }
    QProcess helper;
    helper.setStandardOutputFile(QProcess::nullDevice());
    helper.setStandardErrorFile(QProcess::nullDevice());
    helper.start(program, {model.acousticModel, model.languageModel, model.dictionary});
    if (!helper.waitForStarted()) {
        qCWarning(lcSpeech) << "the model check" << program << "did not start:" << helper.errorString() << "; loading"
                            << model.acousticModel << "without it";
        return Verdict::unchecked;
    }
    const QDeadlineTimer deadline(timeLimit);
    while (helper.state() != QProcess::NotRunning && !helper.waitForFinished(kStepMilliseconds)) {
        if (stopRequested()) {
            stop(helper);
            return Verdict::stopped;
        }
        if (deadline.hasExpired()) {
            stop(helper);
            qCWarning(lcSpeech) << "the model check timed out after" << timeLimit.count() << "s on" << model.acousticModel;
            return Verdict::refused;
        }
    }
    if (helper.exitStatus() == QProcess::CrashExit) {
        qCWarning(lcSpeech) << "the model check was ended by a signal on" << model.acousticModel;
        return Verdict::refused;
    }
    if (helper.exitCode() != 0) {
        qCWarning(lcSpeech) << "the model check refused" << model.acousticModel << model.languageModel << model.dictionary << "with status"
                            << helper.exitCode();
        return Verdict::refused;
    }
    return Verdict::loads;
}
