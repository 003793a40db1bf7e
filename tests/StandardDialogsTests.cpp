// Qt's own dialogs and menus as the program opens them, with Qt's Portuguese translations
// installed as at start-up: none may show a word of Qt's English.
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
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPointer>
#include <QRegularExpression>
#include <QTest>
#include <QTextDocument>
#include <QTimer>
#include <QTreeView>

#include <gtest/gtest.h>

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

// Every text a user can read in `window` or open from it, as it reads.
QStringList readableTexts(QWidget* window)
{
    QStringList texts{window->windowTitle()};
    for (QWidget* widget : window->findChildren<QWidget*>()) {
        if (!widget->isVisibleTo(window))
            continue;
        texts << widget->toolTip();
        if (auto* label = qobject_cast<QLabel*>(widget)) // rich text shows through a document of its own
            texts << (label->findChild<QTextDocument*>() ? label->findChild<QTextDocument*>()->toPlainText() : label->text());
        if (auto* button = qobject_cast<QAbstractButton*>(widget))
            texts << button->text();
        if (auto* field = qobject_cast<QLineEdit*>(widget))
            texts << field->placeholderText();
        const auto* box = qobject_cast<QComboBox*>(widget);
        for (int i = 0; box && i < box->count(); ++i)
            texts << box->itemText(i);
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
QStringList englishIn(QStringList texts)
{
    return texts.replaceInStrings("&", "").filter(kEnglish);
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
        window->findChild<QLineEdit*>("fileNameEdit")->setText(name);
        static_cast<QDialog*>(window)->accept(); // QFileDialog::accept, as its button runs it
    }

    QObject watches;
};

// The open and save dialogs show the filters' short names and remember the folder; the alerts show
// texts as written; the text fields' menus are Portuguese too.
TEST_F(StandardDialogsTest, DialogsAlertsAndMenusSpeakPortuguese)
{
    const QString folder = QDir::homePath() + "/Vídeos/aula", video = folder + "/aula.mp4", notes = folder + "/notas.txt";
    writeFile(video, "mp4");
    writeFile(notes, "texto antigo");
    const std::unique_ptr<FileDialogs> dialogs = std::make_unique<QtFileDialogs>();
    const FileDialogs::Filter media{"Vídeo ou áudio", {"video/*", "audio/*"}}, text{"Texto", {"text/plain"}};

    QStringList seen;
    QString startedIn;
    const auto look = [&](QWidget* window) {
        seen << readableTexts(window);
        startedIn = static_cast<QFileDialog*>(window)->directory().absolutePath();
    };

    whenModalShows(watches, [&](QWidget* window) {
        look(window);
        choose(window, video);
    });
    EXPECT_EQ(dialogs->openFile(nullptr, "Escolher arquivo", media), video);
    EXPECT_EQ(startedIn, QDir::homePath());

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
    for (const char* choice : {"Vídeo ou áudio", "Texto", "Todos os arquivos"})
        EXPECT_TRUE(seen.contains(choice)) << choice;
    EXPECT_TRUE(question.join(' ').contains("notas.txt")) << question.join(" | ").toStdString();
    seen << question;

    const std::unique_ptr<Alerts> alerts = std::make_unique<MessageBoxAlerts>();
    // A failure that quotes a server's error page shows it as written, markup and all.
    const QString quoted = "O servidor respondeu: <html><body><b>Erro</b> interno</body></html>";
    QList<int> answers; // Escape answers the cancelling button, else the only one
    for (const Alerts::Alert& alert : {Alerts::Alert{quoted, "Detalhes: " + quoted, {}},
             Alerts::Alert{"Remover?", "O arquivo é apagado do disco.",
                 {{"Remover", Alerts::Button::Role::destructive}, {"Cancelar", Alerts::Button::Role::cancel}}}}) {
        whenModalShows(watches, [&](QWidget* box) {
            seen << readableTexts(box);
            QTest::keyClick(box, Qt::Key_Escape);
        });
        answers << alerts->runModal(alert);
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
    EXPECT_EQ(answers, QList<int>({0, 1}));
    EXPECT_TRUE(seen.contains(quoted) && seen.contains("Detalhes: " + quoted) && seen.contains("&Copiar\tCtrl+C"))
        << seen.join(" | ").toStdString();
    EXPECT_EQ(englishIn(seen), QStringList()) << seen.join(" | ").toStdString();
}

}
