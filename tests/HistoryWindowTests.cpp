#include "HistoryFiles.h"
#include "HistoryStore.h"
#include "HistoryWindow.h"
#include "Platform/Fakes/FakeAlerts.h"
#include "TestSupport.h"

#include <QAbstractItemModel>
#include <QApplication>
#include <QClipboard>
#include <QCoreApplication>
#include <QDir>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QTableView>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>

namespace {

using Entry = HistoryStore::Entry;

// Seconds since 2001-01-01 UTC for a wall-clock time in the user's time zone.
double localDate(int year, int month, int day, int hour, int minute)
{
    const QDateTime local(QDate(year, month, day), QTime(hour, minute));
    return local.toMSecsSinceEpoch() / 1000.0 - HistoryStore::referenceDateOffset;
}

Entry entry(const QString& text, const QString& appName, double date = localDate(2026, 3, 5, 14, 7))
{
    return {QUuid::createUuid(), date, appName, text};
}

class HistoryWindowTest : public ::testing::Test {
protected:
    QString path = HistoryFiles::freshFolder() + "/Voxaria/history.json";
    std::unique_ptr<HistoryStore> store;
    FakeAlerts alerts;
    std::unique_ptr<HistoryWindow> history;

    void open(const QList<Entry>& entries)
    {
        HistoryFiles::write(path, HistoryFiles::json(entries));
        store = std::make_unique<HistoryStore>(path);
        history = std::make_unique<HistoryWindow>(*store, alerts);
        history->show();
        ASSERT_NE(history->window(), nullptr);
        ASSERT_TRUE(QTest::qWaitForWindowExposed(history->window()));
    }

    template<typename Widget>
    Widget* find(const char* name) const
    {
        auto* widget = history->window()->findChild<Widget*>(name);
        EXPECT_NE(widget, nullptr) << name;
        return widget;
    }
    QTableView* table() const { return find<QTableView>("table"); }
    QString status() const { return find<QLabel>("statusLabel")->text(); }
    QString detail() const { return find<QPlainTextEdit>("detailView")->toPlainText(); }
    bool canCopy() const { return find<QPushButton>("copyButton")->isEnabled(); }
    bool canDelete() const { return find<QPushButton>("deleteButton")->isEnabled(); }

    void type(const QString& query)
    {
        QLineEdit* search = find<QLineEdit>("searchField");
        search->clear();
        search->insert(query); // as typed or pasted; QTest cannot type non-ASCII keys
    }

    QString cell(int row, int column) const
    {
        QAbstractItemModel* model = table()->model();
        return model->data(model->index(row, column)).toString();
    }

    // The texts in the table's "Texto" column, top to bottom.
    QStringList shownTexts() const
    {
        QStringList texts;
        for (int row = 0; row < table()->model()->rowCount(); ++row)
            texts.append(cell(row, 2));
        return texts;
    }

    void clickRow(int row)
    {
        QTableView* view = table();
        const QRect cellRect = view->visualRect(view->model()->index(row, 2));
        ASSERT_TRUE(cellRect.isValid()) << "row " << row << " is not on screen";
        QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, cellRect.center());
    }

    void click(const char* buttonName) { QTest::mouseClick(find<QPushButton>(buttonName), Qt::LeftButton); }
};

// --- The window as the user first sees it -------------------------------------------------------

TEST_F(HistoryWindowTest, OpensWithTheDesignedTextsSizesAndColumns)
{
    open({entry("Primeiro ditado", "Firefox", localDate(2026, 3, 5, 14, 7)),
          entry("Segundo", "—", localDate(2025, 12, 31, 9, 5))});
    QWidget* window = history->window();
    EXPECT_EQ(window->windowTitle(), "Histórico de ditados");
    EXPECT_EQ(window->size(), QSize(620, 500));
    EXPECT_EQ(find<QLineEdit>("searchField")->placeholderText(), "Buscar no histórico…");
    EXPECT_EQ(find<QPushButton>("copyButton")->text(), "Copiar");
    EXPECT_EQ(find<QPushButton>("deleteButton")->text(), "Apagar");
    EXPECT_EQ(find<QPushButton>("clearButton")->text(), "Limpar histórico…");
    EXPECT_EQ(status(), "2 ditados");
    EXPECT_FALSE(canCopy());
    EXPECT_FALSE(canDelete());
    EXPECT_TRUE(detail().isEmpty());
    EXPECT_TRUE(find<QPlainTextEdit>("detailView")->isReadOnly());
    EXPECT_EQ(find<QPlainTextEdit>("detailView")->height(), 110);
    EXPECT_GE(table()->height(), 240);

    QTableView* view = table();
    const QStringList titles = {"Quando", "App", "Texto"};
    const int widths[] = {90, 110, 340};
    for (int column = 0; column < 3; ++column) {
        EXPECT_EQ(view->model()->headerData(column, Qt::Horizontal).toString(), titles[column]);
        EXPECT_EQ(view->columnWidth(column), widths[column]) << "column " << column;
    }
    EXPECT_EQ(view->selectionMode(), QAbstractItemView::SingleSelection);
    EXPECT_TRUE(view->alternatingRowColors());
    EXPECT_EQ(view->textElideMode(), Qt::ElideRight);
    EXPECT_FALSE(view->wordWrap());

    EXPECT_EQ(cell(0, 0), "05/03 14:07");
    EXPECT_EQ(cell(0, 1), "Firefox");
    EXPECT_EQ(cell(1, 0), "31/12 09:05");
    EXPECT_EQ(cell(1, 1), "—");
}

TEST_F(HistoryWindowTest, ClosingOnlyHidesAndReopeningKeepsTheSearch)
{
    open({entry("alpha", "A"), entry("beta", "B")});
    QPointer<QWidget> first = history->window();
    type("beta");
    first->close();
    EXPECT_FALSE(first->isVisible());
    ASSERT_FALSE(first.isNull()) << "closing must not destroy the window";

    history->show();
    EXPECT_EQ(history->window(), first.data());
    EXPECT_TRUE(first->isVisible());
    EXPECT_EQ(find<QLineEdit>("searchField")->text(), "beta");
    EXPECT_EQ(shownTexts(), QStringList({"beta"}));
}

// --- Searching ----------------------------------------------------------------------------------

TEST_F(HistoryWindowTest, SearchIsCaseInsensitiveAccentSensitiveAndBlindToUnicodeForms)
{
    const QString precomposed = QStringLiteral("Reunião às três");
    const QString decomposed = QStringLiteral("Reunia\u0303o de equipe");   // ã as a + combining tilde
    const QString cafeDecomposed = QStringLiteral("Cafe\u0301 da manhã");    // é as e + combining acute
    const QString noPrecomposedForm = QStringLiteral("Guarani: g\u0303");     // g̃ has no single code point, even in NFC
    open({entry(precomposed, "Mail"), entry(decomposed, "Mail"), entry(cafeDecomposed, "Mail"), entry("Café forte", "Mail"),
          entry("cafe sem acento", "Mail"), entry("Abrir o navegador", "Firefox"), entry(noPrecomposedForm, "Dicionário")});

    const struct {
        QString query;
        QStringList expected;
        const char* status;
    } cases[] = {
        {"REUNIÃO", {precomposed, decomposed}, "2 ditados"},
        {QStringLiteral("reunia\u0303o"), {precomposed, decomposed}, "2 ditados"},
        {"reuniao", {}, "0 ditados"},
        {"café", {cafeDecomposed, "Café forte"}, "2 ditados"},
        {"cafe", {"cafe sem acento"}, "1 ditado"},
        {"FIREFOX", {"Abrir o navegador"}, "1 ditado"},
        {"mail", {precomposed, decomposed, cafeDecomposed, "Café forte", "cafe sem acento"}, "5 ditados"},
        {" \t forte\t ", {"Café forte"}, "1 ditado"},
        {"  \t ", {precomposed, decomposed, cafeDecomposed, "Café forte", "cafe sem acento", "Abrir o navegador", noPrecomposedForm}, "7 ditados"},
        {"xyz", {}, "0 ditados"},
        {"guarani: g", {}, "0 ditados"},
        {QStringLiteral("guarani: g\u0303"), {noPrecomposedForm}, "1 ditado"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.query.toStdString());
        type(c.query);
        EXPECT_EQ(shownTexts(), c.expected);
        EXPECT_EQ(status(), c.status);
    }
}

// --- Copying, deleting, clearing ----------------------------------------------------------------

TEST_F(HistoryWindowTest, AMultiLineDictationShowsOnOneLineButIsCopiedWhole)
{
    const QString text = "Lista de compras:\nleite\npão";
    open({entry(text, "Notas"), entry("outro", "Notas")});
    QGuiApplication::clipboard()->setText("antes");

    click("copyButton");
    EXPECT_EQ(QGuiApplication::clipboard()->text(), "antes") << "nothing selected, nothing copied";

    EXPECT_EQ(cell(0, 2), "Lista de compras: leite pão");
    clickRow(0);
    EXPECT_TRUE(canCopy());
    EXPECT_TRUE(canDelete());
    EXPECT_EQ(detail(), text);

    click("copyButton");
    EXPECT_EQ(QGuiApplication::clipboard()->text(), text);
    EXPECT_EQ(status(), "Copiado ✓");

    clickRow(1);
    EXPECT_EQ(status(), "Copiado ✓") << "changing the selection is not a refresh";
    QGuiApplication::clipboard()->setText("antes");
    QTest::mouseDClick(table()->viewport(), Qt::LeftButton, {}, table()->visualRect(table()->model()->index(1, 2)).center());
    EXPECT_EQ(QGuiApplication::clipboard()->text(), "outro") << "a double click copies";

    store->add("novo", "Notas");
    EXPECT_EQ(status(), "3 ditados") << "the next refresh brings the count back";
}

TEST_F(HistoryWindowTest, DeletingUnderAFilterRemovesTheSelectedEntryWithoutAsking)
{
    const QList<Entry> entries = {entry("nota um", "Notas"), entry("outra coisa", "Firefox"),
                                  entry("nota dois", "Notas"), entry("nota três", "Notas")};
    open(entries);
    type("nota");
    ASSERT_EQ(shownTexts(), QStringList({"nota um", "nota dois", "nota três"}));

    clickRow(1);
    EXPECT_EQ(detail(), "nota dois");
    click("deleteButton");

    EXPECT_TRUE(alerts.shown.isEmpty());
    EXPECT_EQ(shownTexts(), QStringList({"nota um", "nota três"}));
    EXPECT_EQ(status(), "2 ditados");
    QList<Entry> expected = entries;
    expected.removeAt(2);
    EXPECT_EQ(store->entries(), expected);
    EXPECT_EQ(HistoryStore(path).entries(), expected) << "the deletion was saved";

    // The row stays selected, now on the next entry; past the end nothing is selected.
    EXPECT_EQ(detail(), "nota três");
    click("deleteButton");
    EXPECT_EQ(shownTexts(), QStringList({"nota um"}));
    EXPECT_FALSE(canDelete());
    EXPECT_TRUE(detail().isEmpty());
    click("deleteButton");
    EXPECT_EQ(store->entries().size(), 2);
}

TEST_F(HistoryWindowTest, ClearingAsksWithThePluralWordingAndOnlyClearsWhenConfirmed)
{
    open({});
    click("clearButton");
    EXPECT_TRUE(alerts.shown.isEmpty()) << "an empty history asks nothing";

    store->add("único", "App");
    type("nada disso");
    click("clearButton");
    ASSERT_EQ(alerts.shown.size(), 1);
    const Alerts::Alert& alert = alerts.shown.first();
    EXPECT_EQ(alert.messageText, "Limpar todo o histórico?");
    EXPECT_EQ(alert.informativeText,
              "Todos os 1 ditados salvos serão apagados. Esta ação não pode ser desfeita.");
    ASSERT_EQ(alert.buttons.size(), 2);
    EXPECT_EQ(alert.buttons[0].title, "Limpar tudo");
    EXPECT_EQ(alert.buttons[0].role, Alerts::Button::Role::destructive);
    EXPECT_EQ(alert.buttons[1].title, "Cancelar");
    EXPECT_EQ(store->entries().size(), 1) << "unanswered (Cancelar) keeps everything";

    store->add("segundo", "App");
    alerts.answers = {"Limpar tudo"};
    click("clearButton");
    ASSERT_EQ(alerts.shown.size(), 2);
    EXPECT_TRUE(alerts.shown[1].informativeText.startsWith("Todos os 2 ditados")) << "counts all entries, not the shown ones";
    EXPECT_TRUE(store->entries().isEmpty());
    EXPECT_EQ(HistoryFiles::read(path), "[]");
    EXPECT_EQ(status(), "0 ditados");
}

// --- Following the store ------------------------------------------------------------------------

TEST_F(HistoryWindowTest, NewDictationsAppearAtOnceEvenWhileHidden)
{
    open({entry("velha nota", "Notas")});
    type("nota");
    store->add("nova nota", "Notas");
    store->add("sem relação", "Outro app");
    EXPECT_EQ(shownTexts(), QStringList({"nova nota", "velha nota"}));
    EXPECT_EQ(status(), "2 ditados");

    history->window()->close();
    store->add("nota escondida", "Notas");
    EXPECT_EQ(history->filtered().size(), 3);
    EXPECT_EQ(history->filtered().first().text, "nota escondida");
}

// --- What it looks like -------------------------------------------------------------------------

TEST_F(HistoryWindowTest, ScreenshotWithPortugueseEntries)
{
    open({entry("Bom dia! Podemos remarcar a reunião para quinta-feira às 15h?", "Thunderbird", localDate(2026, 11, 22, 9, 41)),
          entry("Lembrete:\ncomprar pão, leite e café", "Notas", localDate(2026, 11, 21, 18, 3)),
          entry("A apresentação ficou ótima, parabéns à equipe de operações pelo trabalho cuidadoso e pela dedicação.",
                "Firefox", localDate(2026, 11, 21, 14, 27)),
          entry("git commit -m \"corrige a exportação\"", "Terminal", localDate(2026, 11, 20, 10, 12)),
          entry("Obrigado!", "—", localDate(2026, 11, 19, 8, 0))});
    clickRow(1);
    QTest::qWait(50);

    const QString folder = qEnvironmentVariableIsSet("VOXARIA_SCREENSHOT_DIR")
        ? qEnvironmentVariable("VOXARIA_SCREENSHOT_DIR")
        : QCoreApplication::applicationDirPath();
    QDir().mkpath(folder);
    const QString file = folder + "/history-window.png";
    ASSERT_TRUE(history->window()->grab().save(file)) << file.toStdString();
    std::printf("history window screenshot: %s\n", qPrintable(file));
}

}
