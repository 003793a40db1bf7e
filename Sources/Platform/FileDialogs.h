#pragma once

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

class QWidget;

// Open and save dialogs for one file. Both block in a nested event loop until the user answers.
class FileDialogs {
public:
    // The files the dialog offers: a label and MIME types; "video/*" stands for every video type.
    struct Filter {
        QString label;
        QStringList mimeTypes;
    };

    virtual ~FileDialogs() = default;

    // The existing file the user picked; nothing when the dialog was cancelled.
    virtual std::optional<QString> openFile(QWidget* parent, const QString& title, const Filter& filter) = 0;
    // Where the user chose to save, starting at `suggestedName`; nothing when cancelled. An existing
    // file there has already been confirmed for replacing.
    virtual std::optional<QString> saveFile(QWidget* parent, const QString& title, const Filter& filter, const QString& suggestedName) = 0;
};
