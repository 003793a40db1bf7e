#include "HistoryWindow.h"

#include "Platform/Alerts.h"
#include "Platform/Pasteboard.h"
#include "UI/WindowPlacement.h"

#include <QAbstractTableModel>
#include <QApplication>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTableView>
#include <QTextBoundaryFinder>
#include <QVBoxLayout>

#include <functional>

namespace {

// Fonts are sized in logical pixels, the unit every other size of the window is given in, so text
// and layout keep their proportions on any screen.
QFont systemFont(int pixelSize)
{
    QFont font = QApplication::font();
    font.setPixelSize(pixelSize);
    return font;
}

// Lower case, and one canonical form, so "é" typed precomposed finds "e" + combining acute.
QString foldedForSearch(const QString& text)
{
    return text.toLower().normalized(QString::NormalizationForm_C);
}

// Only spaces and tabs: a pasted line break is part of what the user searches for.
QString trimmedOfSpacesAndTabs(const QString& text)
{
    const auto isBlank = [](QChar c) { return c == u' ' || c == u'\t'; };
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && isBlank(text[begin]))
        ++begin;
    while (end > begin && isBlank(text[end - 1]))
        --end;
    return text.mid(begin, end - begin);
}

// A match must cover whole characters: "a" must not match the base letter of an "a" that carries a
// combining accent, or the search would stop being accent-sensitive.
bool containsWholeCharacters(const QString& folded, const QString& query)
{
    for (qsizetype at = folded.indexOf(query); at >= 0; at = folded.indexOf(query, at + 1)) {
        const qsizetype end = at + query.size();
        if (end == folded.size() || !folded[end].isMark())
            return true;
        QTextBoundaryFinder boundaries(QTextBoundaryFinder::Grapheme, folded);
        boundaries.setPosition(end);
        if (boundaries.isAtBoundary())
            return true;
    }
    return false;
}

bool entryMatches(const HistoryStore::Entry& entry, const QString& foldedQuery)
{
    return containsWholeCharacters(foldedForSearch(entry.text), foldedQuery)
        || containsWholeCharacters(foldedForSearch(entry.appName), foldedQuery);
}

QString countText(qsizetype count)
{
    return count == 1 ? QStringLiteral("1 ditado") : QString::number(count) + QStringLiteral(" ditados");
}

enum Column { dateColumn, appColumn, textColumn, columnCount };

}

// The table's rows are the window's filtered list; cells are one line, tail-truncated by the view.
class HistoryWindow::TableModel final : public QAbstractTableModel {
public:
    explicit TableModel(const QList<HistoryStore::Entry>& rows)
        : m_rows(rows)
        , m_locale(QStringLiteral("pt_BR"))
        , m_font(systemFont(12))
    {
    }

    void reload(const std::function<void()>& change)
    {
        beginResetModel();
        change();
        endResetModel();
    }

    int rowCount(const QModelIndex& parent = {}) const override { return parent.isValid() ? 0 : static_cast<int>(m_rows.size()); }

    int columnCount(const QModelIndex& parent = {}) const override { return parent.isValid() ? 0 : Column::columnCount; }

    QVariant data(const QModelIndex& index, int role) const override
    {
        if (!index.isValid() || index.row() >= m_rows.size())
            return {};
        if (role == Qt::FontRole)
            return m_font;
        if (role != Qt::DisplayRole)
            return {};
        const HistoryStore::Entry& entry = m_rows[index.row()];
        switch (index.column()) {
        case dateColumn: return m_locale.toString(entry.dateTime().toLocalTime(), QStringLiteral("dd/MM HH:mm"));
        case appColumn: return entry.appName;
        case textColumn: return QString(entry.text).replace(u'\n', u' ');
        }
        return {};
    }

    QVariant headerData(int section, Qt::Orientation orientation, int role) const override
    {
        if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
            return {};
        switch (section) {
        case dateColumn: return QStringLiteral("Quando");
        case appColumn: return QStringLiteral("App");
        case textColumn: return QStringLiteral("Texto");
        }
        return {};
    }

private:
    const QList<HistoryStore::Entry>& m_rows;
    QLocale m_locale;
    QFont m_font;
};

HistoryWindow::HistoryWindow(HistoryStore& store, Alerts& alerts, std::shared_ptr<Pasteboard> pasteboard, QObject* parent)
    : QObject(parent)
    , m_store(store)
    , m_alerts(alerts)
    , m_pasteboard(std::move(pasteboard))
{
}

HistoryWindow::~HistoryWindow() = default;

void HistoryWindow::show()
{
    if (!m_window)
        build();
    refresh();
    m_window->show();
    m_window->raise();
    m_window->activateWindow();
}

void HistoryWindow::build()
{
    m_window = std::make_unique<QWidget>();
    m_window->setWindowTitle(QStringLiteral("Histórico de ditados"));
    m_window->setObjectName(QStringLiteral("historyWindow"));

    m_searchField = new QLineEdit;
    m_searchField->setObjectName(QStringLiteral("searchField"));
    m_searchField->setPlaceholderText(QStringLiteral("Buscar no histórico…"));
    m_searchField->setClearButtonEnabled(true);

    m_model = std::make_unique<TableModel>(m_filtered);
    m_table = new QTableView;
    m_table->setObjectName(QStringLiteral("table"));
    m_table->setModel(m_model.get());
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->setSelectionMode(QAbstractItemView::SingleSelection);
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->setAlternatingRowColors(true);
    m_table->setWordWrap(false);
    m_table->setTextElideMode(Qt::ElideRight);
    m_table->setShowGrid(false);
    m_table->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_table->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    m_table->verticalHeader()->hide();
    m_table->verticalHeader()->setDefaultSectionSize(QFontMetrics(systemFont(12)).height() + 6);
    m_table->horizontalHeader()->setHighlightSections(false);
    m_table->horizontalHeader()->setDefaultAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    m_table->setColumnWidth(dateColumn, 90);
    m_table->setColumnWidth(appColumn, 110);
    m_table->setColumnWidth(textColumn, 340);
    m_table->setMinimumHeight(240);

    m_detailView = new QPlainTextEdit;
    m_detailView->setObjectName(QStringLiteral("detailView"));
    m_detailView->setReadOnly(true);
    m_detailView->setFont(systemFont(13));
    m_detailView->document()->setDocumentMargin(8);
    m_detailView->setLineWrapMode(QPlainTextEdit::WidgetWidth);
    m_detailView->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    m_detailView->setFixedHeight(110);

    auto* column = new QVBoxLayout(m_window.get());
    column->setContentsMargins(16, 16, 16, 16);
    column->setSpacing(10);
    column->addWidget(m_searchField);
    column->addWidget(m_table, 1);
    column->addWidget(m_detailView);
    column->addWidget(buildButtonRow(), 0, Qt::AlignLeft);

    m_window->resize(620, 500);
    centreOnScreen(*m_window);

    connect(m_searchField, &QLineEdit::textChanged, this, &HistoryWindow::refresh);
    connect(m_table->selectionModel(), &QItemSelectionModel::selectionChanged, this, &HistoryWindow::updateSelection);
    connect(m_table, &QTableView::doubleClicked, this, &HistoryWindow::copySelected);
    connect(&m_store, &HistoryStore::didChange, this, &HistoryWindow::refresh);
}

QWidget* HistoryWindow::buildButtonRow()
{
    auto* row = new QWidget;
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(8);

    m_copyButton = new QPushButton(QStringLiteral("Copiar"));
    m_copyButton->setObjectName(QStringLiteral("copyButton"));
    m_deleteButton = new QPushButton(QStringLiteral("Apagar"));
    m_deleteButton->setObjectName(QStringLiteral("deleteButton"));
    auto* clearButton = new QPushButton(QStringLiteral("Limpar histórico…"));
    clearButton->setObjectName(QStringLiteral("clearButton"));
    m_copyButton->setEnabled(false);
    m_deleteButton->setEnabled(false);

    m_statusLabel = new QLabel;
    m_statusLabel->setObjectName(QStringLiteral("statusLabel"));
    m_statusLabel->setFont(systemFont(11));
    m_statusLabel->setForegroundRole(QPalette::PlaceholderText);

    layout->addWidget(m_copyButton);
    layout->addWidget(m_deleteButton);
    layout->addWidget(clearButton);
    layout->addWidget(m_statusLabel);

    connect(m_copyButton, &QPushButton::clicked, this, &HistoryWindow::copySelected);
    connect(m_deleteButton, &QPushButton::clicked, this, &HistoryWindow::deleteSelected);
    connect(clearButton, &QPushButton::clicked, this, &HistoryWindow::clearAll);
    return row;
}

void HistoryWindow::refresh()
{
    const QString query = foldedForSearch(trimmedOfSpacesAndTabs(m_searchField->text()));
    const QList<HistoryStore::Entry>& all = m_store.entries();
    QList<HistoryStore::Entry> shown;
    if (query.isEmpty()) {
        shown = all;
    } else {
        for (const HistoryStore::Entry& entry : all) {
            if (entryMatches(entry, query))
                shown.append(entry);
        }
    }
    reloadTableKeepingSelectedRow(std::move(shown));
    m_statusLabel->setText(countText(m_filtered.size()));
    updateSelection();
}

// A reload keeps the selected row number while it still exists, as the user expects after deleting
// one entry: the next one is selected, ready for another "Apagar".
void HistoryWindow::reloadTableKeepingSelectedRow(QList<HistoryStore::Entry> rows)
{
    const int row = selectedRow();
    m_model->reload([&] { m_filtered = std::move(rows); });
    if (row >= 0 && row < m_filtered.size())
        m_table->selectRow(row);
}

void HistoryWindow::updateSelection()
{
    const HistoryStore::Entry* entry = selectedEntry();
    m_copyButton->setEnabled(entry != nullptr);
    m_deleteButton->setEnabled(entry != nullptr);
    m_detailView->setPlainText(entry ? entry->text : QString());
}

int HistoryWindow::selectedRow() const
{
    const QModelIndexList rows = m_table->selectionModel()->selectedRows();
    return rows.isEmpty() ? -1 : rows.first().row();
}

const HistoryStore::Entry* HistoryWindow::selectedEntry() const
{
    if (!m_window)
        return nullptr;
    const int row = selectedRow();
    return row >= 0 && row < m_filtered.size() ? &m_filtered[row] : nullptr;
}

void HistoryWindow::copySelected()
{
    const HistoryStore::Entry* entry = selectedEntry();
    if (!entry)
        return;
    m_pasteboard->setString(entry->text);
    m_statusLabel->setText(QStringLiteral("Copiado ✓"));
}

void HistoryWindow::deleteSelected()
{
    if (const HistoryStore::Entry* entry = selectedEntry())
        m_store.remove(entry->id);
}

void HistoryWindow::clearAll()
{
    const qsizetype count = m_store.entries().size();
    if (count == 0)
        return;
    const Alerts::Alert alert{
        QStringLiteral("Limpar todo o histórico?"),
        QStringLiteral("Todos os ") + QString::number(count)
            + QStringLiteral(" ditados salvos serão apagados. Esta ação não pode ser desfeita."),
        {{QStringLiteral("Limpar tudo"), Alerts::Button::Role::destructive}, {QStringLiteral("Cancelar"), Alerts::Button::Role::cancel}},
    };
    if (m_alerts.runModal(alert) == 0)
        m_store.clear();
}
