#pragma once

#include "Platform/FileDialogs.h"

// FileDialogs as QFileDialog, restricted by the file-name patterns of the MIME types asked for.
class QtFileDialogs final : public FileDialogs {
public:
    std::optional<QString> openFile(QWidget* parent, const QString& title, const Filter& filter) override;
    std::optional<QString> saveFile(QWidget* parent, const QString& title, const Filter& filter, const QString& suggestedName) override;
};
