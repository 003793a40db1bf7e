#include "TrayMissingWindow.h"

#include "Platform/WindowFocus.h"
#include "UI/WindowPlacement.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace {

const QString explanation = QStringLiteral(
    "Esta área de trabalho não mostra a bandeja do sistema, onde ficam o ícone e o menu do Voxaria. A tecla de ditado funciona "
    "mesmo assim.\n\n"
    "No GNOME, instale e ative a extensão AppIndicator e entre de novo na sessão:\n"
    "sudo apt install gnome-shell-extension-appindicator\n\n"
    "Enquanto isso, os comandos do menu estão aqui.");

}

TrayMissingWindow::TrayMissingWindow(Actions actions, WindowFocus& focus)
    // A plain window the user can move and close, which never asks for the keyboard.
    : m_window(std::make_unique<QWidget>(
        nullptr, Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowCloseButtonHint | Qt::WindowDoesNotAcceptFocus))
{
    m_window->setObjectName(QStringLiteral("trayMissingWindow"));
    m_window->setWindowTitle(QStringLiteral("O Voxaria está em execução"));
    m_window->setAttribute(Qt::WA_ShowWithoutActivating);
    auto* layout = new QVBoxLayout(m_window.get());
    auto* text = new QLabel(explanation);
    text->setTextFormat(Qt::PlainText);
    text->setWordWrap(true);
    // The command can be selected with the mouse and copied.
    text->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(text);

    auto* buttons = new QHBoxLayout;
    const auto addButton = [&](const QString& title, std::function<void()> action) {
        auto* button = new QPushButton(title);
        button->setFocusPolicy(Qt::NoFocus);
        QObject::connect(button, &QPushButton::clicked, m_window.get(), std::move(action));
        buttons->addWidget(button);
    };
    addButton(QStringLiteral("Histórico de ditados…"), std::move(actions.openHistory));
    addButton(QStringLiteral("Transcrever vídeo ou link…"), std::move(actions.openVideoTranscription));
    addButton(QStringLiteral("Ajuda"), std::move(actions.openHelp));
    buttons->addStretch();
    addButton(QStringLiteral("Sair do Voxaria"), std::move(actions.quit));
    addButton(QStringLiteral("Fechar"), [window = m_window.get()] { window->hide(); });
    layout->addLayout(buttons);

    m_window->adjustSize();
    centreOnScreen(*m_window);
    focus.keepFromTakingFocus(*m_window);
}

TrayMissingWindow::~TrayMissingWindow() = default;

void TrayMissingWindow::show()
{
    m_window->show();
    m_window->raise();
}
