#pragma once

#include "Platform/FileDialogs.h"

class QFileDialog;

// FileDialogs as QFileDialog, restricted by the file-name patterns of the MIME types asked for (or
// showing every file, the filter's second choice). Each dialog opens in the folder of the file last
// picked or saved through this object, the home folder at first.
class QtFileDialogs final : public FileDialogs {
public:
    std::optional<QString> openFile(QWidget* parent, const QString& title, const Filter& filter) override;
    std::optional<QString> saveFile(QWidget* parent, const QString& title, const Filter& filter, const QString& suggestedName) override;

private:
    void prepare(QFileDialog& dialog, const Filter& filter) const;
    std::optional<QString> run(QFileDialog& dialog);

    QString m_lastFolder;
};
