// Qt's own dialogs and menus as the program opens them (the open and save dialogs, the question
// before a file is replaced, the alerts, the text fields' context menus), with Qt's Portuguese
// translations installed as at start-up: none may show a word of Qt's English.
#include "Platform/Linux/Desktop/MessageBoxAlerts.h"
#include "Platform/Linux/Desktop/QtFileDialogs.h"
#include "Shared/QtTranslations.h"
#include "TestSupport.h"

#include <QAbstractButton>
#include <QAbstractItemView>
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QFileDialog>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPointer>
#include <QRegularExpression>
#include <QTimer>
#include <QTreeView>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using namespace TestSupport;

namespace {

// Words of Qt's English texts in these dialogs and menus; none of them is Portuguese.
const QRegularExpression kEnglish(QStringLiteral("\\b(Look in|File name|Files of type|Open|Save|Cancel|Yes|No|Back|Forward|Parent "
                                                 "Directory|Create New Folder|New Folder|List View|Detail View|Name|Size|Type|Date "
                                                 "Modified|Undo|Redo|Cut|Copy|Paste|Delete|Select All|already exists|replace|Rename|"
                                                 "Show hidden files|Recent Places|Computer|Directory|Folder|All Files|Close)\\b"));

void addMenuTexts(const QList<QAction*>& actions, QStringList& texts)
{
    for (const QAction* action : actions) {
        texts << action->text() << action->toolTip();
        if (action->menu())
            addMenuTexts(action->menu()->actions(), texts);
    }
}

// Every text a user can read in `window` or open from it: its title, labels, buttons and their
// tips, list headers, the choices of its boxes, and the actions of its menus.
QStringList readableTexts(QWidget* window)
{
    QStringList texts{window->windowTitle()};
    for (QWidget* widget : window->findChildren<QWidget*>()) {
        if (!widget->isVisibleTo(window))
            continue;
        texts << widget->toolTip();
        if (auto* label = qobject_cast<QLabel*>(widget))
            texts << label->text();
        if (auto* button = qobject_cast<QAbstractButton*>(widget))
            texts << button->text();
        if (auto* field = qobject_cast<QLineEdit*>(widget))
            texts << field->placeholderText();
        if (auto* box = qobject_cast<QComboBox*>(widget)) {
            for (int i = 0; i < box->count(); ++i)
                texts << box->itemText(i);
        }
        if (auto* tree = qobject_cast<QTreeView*>(widget); tree && tree->model()) {
            for (int column = 0; column < tree->model()->columnCount(tree->rootIndex()); ++column)
                texts << tree->model()->headerData(column, Qt::Horizontal).toString();
        } else if (auto* list = qobject_cast<QAbstractItemView*>(widget); list && list->model()) {
            for (int row = 0; row < list->model()->rowCount(list->rootIndex()); ++row)
                texts << list->model()->index(row, 0, list->rootIndex()).data().toString();
        }
    }
    addMenuTexts(window->findChildren<QAction*>(), texts);
    texts.removeAll(QString());
    return texts;
}

// The texts in Qt's English, mnemonics removed ("&Open" reads "Open").
QStringList englishIn(const QStringList& texts)
{
    QStringList english;
    for (QString text : texts) {
        text.remove(u'&');
        if (kEnglish.match(text).hasMatch())
            english << text;
    }
    return english;
}

// Runs `inspect` on the next modal window other than `previous` once it shows, from inside its
// own event loop; `inspect` must close it. The watch ends with `owner`.
void whenModalShows(QObject& owner, std::function<void(QWidget*)> inspect, QWidget* previous = nullptr)
{
    auto* poll = new QTimer(&owner);
    poll->setInterval(20);
    QObject::connect(poll, &QTimer::timeout, [poll, previous = QPointer<QWidget>(previous), inspect = std::move(inspect)] {
        QWidget* modal = QApplication::activeModalWidget();
        if (!modal || modal == previous || !modal->isVisible())
            return;
        poll->stop();
        poll->deleteLater();
        inspect(modal);
    });
    poll->start();
}

class StandardDialogsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_TRUE(installQtTranslations()) << "Qt's pt_BR translations are missing: install qt6-translations-l10n";
    }

    // Types a name into a file dialog's field and presses its button, as a user does.
    static void choose(QWidget* window, const QString& name)
    {
        auto* field = window->findChild<QLineEdit*>("fileNameEdit");
        ASSERT_TRUE(field);
        field->setText(name);
        static_cast<QDialog*>(window)->accept(); // QFileDialog::accept, as its button runs it
    }

    QObject watches;
};

TEST_F(StandardDialogsTest, OpenAndSaveDialogsSpeakPortugueseShowShortFiltersAndRememberTheFolder)
{
    const QString folder = QDir::homePath() + "/Vídeos/aula", video = folder + "/aula.mp4", notes = folder + "/notas.txt";
    writeFile(video, "mp4");
    writeFile(notes, "texto antigo");
    const std::unique_ptr<FileDialogs> dialogs = std::make_unique<QtFileDialogs>();
    const FileDialogs::Filter media{"Vídeo ou áudio", {"video/*", "audio/*"}}, text{"Texto", {"text/plain"}};

    QStringList seen, choices;
    QString startedIn;
    const auto look = [&](QWidget* window) {
        auto* dialog = qobject_cast<QFileDialog*>(window);
        ASSERT_TRUE(dialog);
        seen << readableTexts(dialog);
        startedIn = dialog->directory().absolutePath();
        choices.clear();
        if (const QComboBox* types = dialog->findChild<QComboBox*>("fileTypeCombo")) {
            for (int i = 0; i < types->count(); ++i)
                choices << types->itemText(i);
        }
    };

    whenModalShows(watches, [&](QWidget* window) {
        look(window);
        choose(window, video);
    });
    EXPECT_EQ(dialogs->openFile(nullptr, "Escolher arquivo", media), video);
    EXPECT_EQ(startedIn, QDir::homePath());
    EXPECT_EQ(choices, QStringList({"Vídeo ou áudio", "Todos os arquivos"}));

    whenModalShows(watches, [&](QWidget* window) {
        look(window);
        static_cast<QFileDialog*>(window)->reject();
    });
    EXPECT_EQ(dialogs->openFile(nullptr, "Escolher arquivo", media), std::nullopt);
    EXPECT_EQ(startedIn, folder);

    // Saving over a file asks first; the question is Qt's too.
    QStringList question;
    whenModalShows(watches, [&](QWidget* window) {
        look(window);
        whenModalShows(
            watches,
            [&](QWidget* box) {
                question = readableTexts(box);
                auto* message = qobject_cast<QMessageBox*>(box);
                ASSERT_TRUE(message);
                message->button(QMessageBox::Yes)->click();
            },
            window);
        choose(window, "notas");
    });
    EXPECT_EQ(dialogs->saveFile(nullptr, "Salvar texto", text, "transcricao.txt"), notes);
    EXPECT_EQ(startedIn, folder);
    EXPECT_EQ(choices, QStringList({"Texto", "Todos os arquivos"}));
    ASSERT_FALSE(question.isEmpty());
    EXPECT_TRUE(question.join(' ').contains("notas.txt")) << question.join(" | ").toStdString();

    EXPECT_EQ(englishIn(seen), QStringList()) << seen.join(" | ").toStdString();
    EXPECT_EQ(englishIn(question), QStringList()) << question.join(" | ").toStdString();
}

TEST_F(StandardDialogsTest, AlertsAndTextFieldMenusSpeakPortuguese)
{
    const std::unique_ptr<Alerts> alerts = std::make_unique<MessageBoxAlerts>();
    QStringList seen;
    for (const Alerts::Alert& alert : {Alerts::Alert{"Whisper indisponível", "O whisper-cli não foi encontrado.", {}},
             Alerts::Alert{"Remover?", "O arquivo é apagado do disco.",
                 {{"Remover", Alerts::Button::Role::destructive}, {"Cancelar", Alerts::Button::Role::cancel}}}}) {
        whenModalShows(watches, [&](QWidget* box) {
            seen << readableTexts(box);
            box->close();
        });
        alerts->runModal(alert);
    }

    // The menus of a field and of a read-only text view, as a right click opens them.
    QLineEdit field("https://exemplo.com");
    QPlainTextEdit view("texto");
    view.setReadOnly(true);
    for (QMenu* menu : {field.createStandardContextMenu(), view.createStandardContextMenu()}) {
        addMenuTexts(menu->actions(), seen);
        delete menu;
    }
    seen.removeAll(QString());
    EXPECT_TRUE(seen.join(" | ").contains("&Copiar\tCtrl+C")) << seen.join(" | ").toStdString();
    EXPECT_EQ(englishIn(seen), QStringList()) << seen.join(" | ").toStdString();
}

}
