#pragma once

// A throwaway home for a benchmark that runs whisper-cli: data, settings and scratch folders inside
// one temporary folder, so a run never touches the files of the person running it.

#include "Shared/AppPaths.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

class BenchHome {
public:
    // Before the application object exists, so every path Qt computes lands here.
    BenchHome()
    {
        for (const char* variable : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "TMPDIR"})
            qputenv(variable, m_folder.path().toUtf8());
    }

    QString path() const { return m_folder.path(); }

    // An empty file under the default model's name: enough for a stand-in whisper-cli to be run.
    static void placeEmptyModel()
    {
        QDir().mkpath(AppPaths::modelsFolder());
        QFile model(AppPaths::modelsFolder() + QStringLiteral("/ggml-small-q5_1.bin"));
        model.open(QIODevice::WriteOnly);
    }

private:
    QTemporaryDir m_folder;
};
