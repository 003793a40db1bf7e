#include "QtFileDialogs.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QSet>

namespace {

// The shared-mime-info types a name like "audio/*" stands for; a plain name stands for itself.
QList<QMimeType> expand(const QString& name)
{
    const QMimeDatabase database;
    if (!name.endsWith(QStringLiteral("/*")))
        return {database.mimeTypeForName(name)};
    const QString prefix = name.chopped(1);
    QList<QMimeType> types;
    for (const QMimeType& type : database.allMimeTypes()) {
        if (type.name().startsWith(prefix))
            types.append(type);
    }
    return types;
}

// "Vídeo ou áudio (*.mp4 *.mkv …)": Qt's own MIME filters take no wildcards, so the patterns are
// gathered here, each once, in the order the types list them. The dialog shows the label alone
// (the patterns of every video and audio type make a line of nearly a thousand characters), and
// "Todos os arquivos" lets a file with an unusual name be picked all the same.
QStringList nameFilters(const FileDialogs::Filter& filter)
{
    QStringList patterns;
    QSet<QString> seen;
    for (const QString& name : filter.mimeTypes) {
        for (const QMimeType& type : expand(name)) {
            for (const QString& pattern : type.globPatterns()) {
                if (!seen.contains(pattern)) {
                    seen.insert(pattern);
                    patterns.append(pattern);
                }
            }
        }
    }
    return {filter.label + QStringLiteral(" (") + patterns.join(u' ') + u')', QStringLiteral("Todos os arquivos (*)")};
}

}

void QtFileDialogs::prepare(QFileDialog& dialog, const Filter& filter) const
{
    // Qt's own dialog: the same on every desktop, and usable without a portal or a window manager.
    dialog.setOptions(QFileDialog::DontUseNativeDialog | QFileDialog::HideNameFilterDetails);
    dialog.setNameFilters(nameFilters(filter));
    dialog.setDirectory(m_lastFolder.isEmpty() ? QDir::homePath() : m_lastFolder);
}

std::optional<QString> QtFileDialogs::run(QFileDialog& dialog)
{
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
        return std::nullopt;
    const QString chosen = dialog.selectedFiles().constFirst();
    // The next dialog opens where the user last found or put a file.
    m_lastFolder = QFileInfo(chosen).absolutePath();
    return chosen;
}

std::optional<QString> QtFileDialogs::openFile(QWidget* parent, const QString& title, const Filter& filter)
{
    QFileDialog dialog(parent, title);
    prepare(dialog, filter);
    dialog.setFileMode(QFileDialog::ExistingFile);
    return run(dialog);
}

std::optional<QString> QtFileDialogs::saveFile(QWidget* parent, const QString& title, const Filter& filter, const QString& suggestedName)
{
    QFileDialog dialog(parent, title);
    prepare(dialog, filter);
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.selectFile(suggestedName);
    // A name typed without its extension still gets one.
    if (!filter.mimeTypes.isEmpty())
        dialog.setDefaultSuffix(QMimeDatabase().mimeTypeForName(filter.mimeTypes.constFirst()).preferredSuffix());
    return run(dialog);
}
