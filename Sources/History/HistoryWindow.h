#pragma once

#include "HistoryStore.h"

#include <QObject>

#include <memory>

class Alerts;
class Pasteboard;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QTableView;
class QWidget;

// "Histórico de ditados": search, browse, copy, delete and clear past dictations. The window is
// built on the first show(), hidden (never destroyed) when closed, and redrawn on every change of
// the store, shown or not. Main thread only.
class HistoryWindow : public QObject {
    Q_OBJECT
public:
    // "Copiar" puts the chosen text on `pasteboard`.
    HistoryWindow(HistoryStore& store, Alerts& alerts, std::shared_ptr<Pasteboard> pasteboard, QObject* parent = nullptr);
    ~HistoryWindow() override;

    // Builds the window on first use, refreshes it and brings it to the front.
    void show();
    // Absent until the first show().
    QWidget* window() const { return m_window.get(); }

    void copySelected();
    void deleteSelected();
    void clearAll();

private:
    class TableModel;

    void build();
    QWidget* buildButtonRow();
    void refresh();
    void reloadTableKeepingSelectedRow(QList<HistoryStore::Entry> rows);
    void updateSelection();
    int selectedRow() const;
    const HistoryStore::Entry* selectedEntry() const;

    HistoryStore& m_store;
    Alerts& m_alerts;
    std::shared_ptr<Pasteboard> m_pasteboard;
    // The entries the table shows, in store order; the table's rows.
    QList<HistoryStore::Entry> m_filtered;

    std::unique_ptr<QWidget> m_window;
    std::unique_ptr<TableModel> m_model;
    QTableView* m_table = nullptr;
    QLineEdit* m_searchField = nullptr;
    QPlainTextEdit* m_detailView = nullptr;
    QLabel* m_statusLabel = nullptr;
    QPushButton* m_copyButton = nullptr;
    QPushButton* m_deleteButton = nullptr;
};
