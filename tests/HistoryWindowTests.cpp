#include "History/HistoryStore.h"
#include "History/HistoryWindow.h"
#include "HistoryFiles.h"
#include "Platform/Fakes/FakeAlerts.h"
#include "Platform/Linux/X11/X11ClipboardPasteboard.h"
#include "TestSupport.h"

#include <QApplication>
#include <QClipboard>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QTableView>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

namespace {

using Entry = HistoryStore::Entry;

// Seconds since 2001-01-01 UTC for a wall-clock time in the user's time zone.
double localDate(int month, int day, int hour, int minute)
{
    return QDateTime(QDate(2026, month, day), QTime(hour, minute)).toMSecsSinceEpoch() / 1000.0 - HistoryStore::referenceDateOffset;
}

Entry entry(const QString& text, const QString& appName, double date = localDate(3, 5, 14, 7))
{
    return {QUuid::createUuid(), date, appName, text};
}

// Drives the real window over a store of the test's own; the alerts answer from a script.
class HistoryWindowTest : public ::testing::Test {
protected:
    QTemporaryDir folder;
    QString path = folder.filePath("history.json");
    std::unique_ptr<HistoryStore> store;
    FakeAlerts alerts;
    std::unique_ptr<HistoryWindow> history;

    void open(const QList<Entry>& entries)
    {
        history.reset();
        ASSERT_TRUE(TestSupport::writeFile(path, HistoryFiles::json(entries)));
        store = std::make_unique<HistoryStore>(path);
        history = std::make_unique<HistoryWindow>(*store, alerts, std::make_shared<X11ClipboardPasteboard>());
        history->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(history->window()));
    }

    template <typename Widget> Widget* find(const char* name) const { return history->window()->findChild<Widget*>(name); }
    QTableView* table() const { return find<QTableView>("table"); }
    QString status() const { return find<QLabel>("statusLabel")->text(); }
    QString cell(int row, int column) const { return table()->model()->index(row, column).data().toString(); }

    // As pasted: QTest cannot type non-ASCII keys.
    void type(const QString& query) { find<QLineEdit>("searchField")->setText(query); }

    QStringList shownTexts() const
    {
        QStringList texts;
        for (int row = 0; row < table()->model()->rowCount(); ++row)
            texts.append(cell(row, 2));
        return texts;
    }

    QPoint rowCentre(int row) const { return table()->visualRect(table()->model()->index(row, 2)).center(); }
    void clickRow(int row) { QTest::mouseClick(table()->viewport(), Qt::LeftButton, {}, rowCentre(row)); }
    void click(const char* buttonName) { QTest::mouseClick(find<QPushButton>(buttonName), Qt::LeftButton); }
};

TEST_F(HistoryWindowTest, SearchIsCaseInsensitiveAccentSensitiveAndBlindToUnicodeFormsAndCopiesDictationsWhole)
{
    const QString composed = "Reunião às três";
    const QString decomposed = "Reunia\u0303o de equipe"; // ã as a + combining tilde
    const QString cafe = "Cafe\u0301 da manhã"; // é as e + combining acute
    open({entry(composed, "Mail"), entry(decomposed, "Mail"), entry(cafe, "Mail"), entry("cafe sem acento", "Mail"),
        entry("Abrir o navegador", "Firefox")});

    const struct {
        QString query;
        QStringList expected;
        const char* status;
    } cases[] = {
        {"REUNIÃO", {composed, decomposed}, "2 ditados"},
        {"reunia\u0303o", {composed, decomposed}, "2 ditados"},
        {" \t CAFÉ\t ", {cafe}, "1 ditado"},
        {"cafe", {"cafe sem acento"}, "1 ditado"},
        {"FIREFOX", {"Abrir o navegador"}, "1 ditado"},
        {"  \t ", {composed, decomposed, cafe, "cafe sem acento", "Abrir o navegador"}, "5 ditados"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.query.toStdString());
        type(c.query);
        EXPECT_EQ(shownTexts(), c.expected);
        EXPECT_EQ(status(), c.status);
    }

    const QString text = "Lista de compras:\nleite\npão";
    open({entry(text, "Notas", localDate(3, 5, 9, 41)), entry("outro", "—", localDate(12, 31, 14, 27))});
    EXPECT_EQ(QStringList({cell(0, 0), cell(1, 0), cell(1, 1)}), QStringList({"05/03 09:41", "31/12 14:27", "—"}));
    EXPECT_FALSE(find<QPushButton>("copyButton")->isEnabled() || find<QPushButton>("deleteButton")->isEnabled());

    EXPECT_EQ(cell(0, 2), "Lista de compras: leite pão");
    clickRow(0);
    EXPECT_EQ(find<QPlainTextEdit>("detailView")->toPlainText(), text);
    click("copyButton");
    EXPECT_EQ(QGuiApplication::clipboard()->text(), text);
    EXPECT_EQ(status(), "Copiado ✓");

    clickRow(1); // the first click of the double click selects
    QTest::mouseDClick(table()->viewport(), Qt::LeftButton, {}, rowCentre(1));
    EXPECT_EQ(QGuiApplication::clipboard()->text(), "outro") << "a double click copies";
}

// Under a filter new dictations appear at once; deleting removes the selected one without asking;
// clearing asks first, counting all, and clears only when confirmed; closing only hides.
TEST_F(HistoryWindowTest, UnderAFilterNewDictationsAppearDeletingDoesNotAskAndClearingDoes)
{
    const QList<Entry> entries = {entry("nota um", "Notas"), entry("outra coisa", "Firefox"), entry("nota dois", "Notas")};
    open(entries);
    type("nota");
    store->add("nova nota", "Notas");
    store->add("sem relação", "Outro app");
    EXPECT_EQ(shownTexts(), QStringList({"nova nota", "nota um", "nota dois"}));
    clickRow(2);
    click("deleteButton");
    EXPECT_TRUE(alerts.shown.isEmpty());
    EXPECT_EQ(shownTexts(), QStringList({"nova nota", "nota um"}));
    EXPECT_EQ(status(), "2 ditados");
    EXPECT_EQ(HistoryStore(path).entries().mid(2), entries.mid(0, 2));

    click("clearButton"); // Cancelar
    ASSERT_EQ(alerts.shown.size(), 1);
    EXPECT_TRUE(alerts.shown[0].informativeText.startsWith("Todos os 4 ditados")) << "counts all, not the shown";
    EXPECT_EQ(store->entries().size(), 4);
    alerts.answers = QStringList{"Limpar tudo"};
    click("clearButton");
    EXPECT_EQ(HistoryFiles::read(path), "[]");
    EXPECT_EQ(status(), "0 ditados");
    click("clearButton");
    EXPECT_EQ(alerts.shown.size(), 2) << "an empty history asks nothing";

    QPointer<QWidget> window = history->window();
    window->close();
    ASSERT_FALSE(window.isNull()) << "closing only hides";
    store->add("nota escondida", "Notas");
    EXPECT_EQ(shownTexts(), QStringList{"nota escondida"});
}

}
