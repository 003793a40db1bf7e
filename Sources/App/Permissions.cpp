#include "Permissions.h"

#include "Platform/AccessibilityTrust.h"
#include "Shared/LiveSpeechModel.h"
#include "Shared/Logging.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QThreadPool>

namespace {

QString mark(bool granted)
{
    return granted ? QStringLiteral("✅ concedida") : QStringLiteral("❌ pendente");
}

// Runs `lookUp` on a pooled thread (a sound server that does not answer may hold it for half a
// second) and hands its answer to `completion` on the main thread.
void answerOnMainThread(std::function<bool()> lookUp, std::function<void(bool)> completion)
{
    QPointer<QCoreApplication> application = QCoreApplication::instance();
    QThreadPool::globalInstance()->start([lookUp = std::move(lookUp), completion = std::move(completion), application] {
        const bool granted = lookUp();
        if (application)
            QMetaObject::invokeMethod(
                application, [completion, granted] { completion(granted); }, Qt::QueuedConnection);
    });
}

}

Permissions::Checks Permissions::Checks::system(const SessionPlatform& platform, std::function<bool()> microphoneListed)
{
    return {
        std::move(microphoneListed),
        // One model transcribes every language it knows: installed, it serves each of them.
        [](const QString& localeIdentifier) {
            return LiveSpeechModel::transcribes(localeIdentifier) && QFileInfo::exists(LiveSpeechModel::installedPath());
        },
        [trust = std::shared_ptr<AccessibilityTrust>(platform.makeAccessibilityTrust())] { return trust->isTrusted(false); },
    };
}

void Permissions::check(const QString& localeIdentifier, std::function<void(Needs)> completion, const Checks& checks)
{
    answerOnMainThread(checks.inputDeviceListed, [localeIdentifier, completion = std::move(completion), checks](bool microphone) {
        completion({microphone, checks.nativeModelFound(localeIdentifier), checks.keyboardAccess()});
    });
}

void Permissions::requestMicrophone(std::function<void(bool)> completion, const Checks& checks)
{
    answerOnMainThread(checks.inputDeviceListed, std::move(completion));
}

void Permissions::requestSpeechRecognition(const QString& localeIdentifier, std::function<void(bool)> completion, const Checks& checks)
{
    answerOnMainThread([nativeModelFound = checks.nativeModelFound, localeIdentifier] { return nativeModelFound(localeIdentifier); },
        std::move(completion));
}

void Permissions::requestAtLaunch(const QString& localeIdentifier, const Checks& checks)
{
    requestMicrophone(
        [](bool granted) {
            if (!granted)
                qCWarning(lcApp).noquote() << "Permissão de microfone negada";
        },
        checks);
    requestSpeechRecognition(
        localeIdentifier,
        [](bool granted) {
            if (!granted)
                qCWarning(lcApp).noquote() << "Permissão de reconhecimento de fala negada";
        },
        checks);
    if (!checks.keyboardAccess())
        qCWarning(lcApp).noquote()
            << "Acesso ao teclado pendente: a tecla de ditado e a colagem precisam de uma sessão X11 com XInput2 e XTEST";
}

std::optional<Permissions::WaylandUse> Permissions::WaylandUse::of(const SessionPlatform& platform)
{
    const SessionInfo session = platform.session();
    if (session.kind != SessionInfo::Kind::wayland)
        return std::nullopt;
    const SessionPlatform::Wording wording = platform.wording();
    return WaylandUse{session.description(), platform.keySource().description, wording.pasteRoute, wording.pasteNote};
}

namespace {

QString keyboardLine(const std::optional<Permissions::WaylandUse>& wayland)
{
    if (!wayland)
        return QStringLiteral("3. Acesso ao teclado (X11) — para detectar a tecla de ditado e inserir o texto ");
    const QString keySource = wayland->keySource.isEmpty() ? QStringLiteral("nenhuma") : wayland->keySource;
    return QStringLiteral("3. Acesso ao teclado (") + wayland->sessionName + QStringLiteral(") — tecla de ditado: ") + keySource
        + QStringLiteral("; colagem: ") + wayland->pasteRoute + QLatin1Char(' ');
}

}

Alerts::Alert Permissions::permissionsAlert(const Needs& needs, const QString& localeIdentifier, const std::optional<WaylandUse>& wayland)
{
    const QString text = QStringLiteral("O Voxaria precisa de três coisas:\n\n1. Microfone — para capturar sua voz ")
        + mark(needs.microphone) + QStringLiteral("\n2. Reconhecimento de fala — modelo do motor nativo para o idioma ") + localeIdentifier
        + QLatin1Char(' ') + mark(needs.speechRecognition) + QLatin1Char('\n') + keyboardLine(wayland) + mark(needs.keyboardAccess)
        + (wayland && !wayland->note.isEmpty() ? QStringLiteral("\n\n") + wayland->note : QString())
        + QStringLiteral("\n\nSe algo não funcionar, veja a ajuda.");
    return {QStringLiteral("Permissões do Voxaria"), text, {{QStringLiteral("Abrir ajuda")}, {QStringLiteral("OK")}}};
}

QUrl Permissions::helpPageURL()
{
    return helpPageURL(QCoreApplication::applicationDirPath());
}

QUrl Permissions::helpPageURL(const QString& executableFolder)
{
    // Installed, the program lives in <prefix>/libexec/voxaria beside its whisper-cli; in the build tree,
    // in build/bin. The page is under <prefix>/share (build/share) either way.
    const QString prefix = executableFolder.endsWith(QStringLiteral("/libexec/voxaria")) ? QStringLiteral("/../..") : QStringLiteral("/..");
    return QUrl::fromLocalFile(QDir::cleanPath(executableFolder + prefix + QStringLiteral("/share/voxaria/help/ajuda.html")));
}

std::optional<Alerts::Alert> Permissions::noEngineAlert(bool whisperFound, bool nativeModelFound, const QString& localeIdentifier)
{
    if (whisperFound || nativeModelFound)
        return std::nullopt;
    return Alerts::Alert{
        QStringLiteral("Instale o Whisper para ditar"),
        QStringLiteral("O Voxaria não encontrou o whisper-cli, e o motor nativo (Nemotron) não tem modelo para o idioma ")
            + localeIdentifier
            + QStringLiteral(
                ".\n\nInstale o whisper.cpp da sua distribuição e reinicie o Voxaria, ou baixe o modelo do motor nativo no menu."),
        {{QStringLiteral("OK")}},
    };
}

std::optional<Alerts::Alert> Permissions::noKeySourceAlert(const SessionPlatform& platform)
{
    const SessionInfo session = platform.session();
    if (session.kind != SessionInfo::Kind::wayland || platform.keySource().works)
        return std::nullopt;
    return Alerts::Alert{
        QStringLiteral("O Voxaria não consegue ver a tecla de ditado"),
        QStringLiteral("Nesta sessão ") + session.description()
            + QStringLiteral(", o Voxaria só vê a tecla de ditado lendo os teclados em /dev/input, e o seu usuário não pode lê-los.\n\n"
                             "Entre no grupo input (sudo usermod -aG input $USER) e abra a sessão de novo")
            + platform.wording().keySourceRemedy
            + QStringLiteral("No grupo input, qualquer programa seu pode ler tudo o que você digita, inclusive senhas."),
        {{QStringLiteral("OK")}},
    };
}
