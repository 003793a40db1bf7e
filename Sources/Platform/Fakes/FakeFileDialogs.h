#pragma once

#include "Platform/FileDialogs.h"

#include <QList>

// Records every dialog ("open|title|label|types" or "save|title|label|types|name") and answers
// from a script, in order: a path, or nothing for Cancel. A dry script cancels.
class FakeFileDialogs final : public FileDialogs {
public:
    QStringList shown;
    QList<std::optional<QString>> answers;

    std::optional<QString> openFile(QWidget*, const QString& title, const Filter& filter) override
    {
        return answer({QStringLiteral("open"), title, filter.label, filter.mimeTypes.join(u',')});
    }
    std::optional<QString> saveFile(QWidget*, const QString& title, const Filter& filter, const QString& suggestedName) override
    {
        return answer({QStringLiteral("save"), title, filter.label, filter.mimeTypes.join(u','), suggestedName});
    }

private:
    std::optional<QString> answer(const QStringList& dialog)
    {
        shown.append(dialog.join(u'|'));
        return answers.isEmpty() ? std::nullopt : answers.takeFirst();
    }
};
