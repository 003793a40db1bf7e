#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// The three files PocketSphinx needs to recognise one language.
struct PocketSphinxModel {
    QString acousticModel; // a folder holding mdef, means, variances...
    QString languageModel;
    QString dictionary;

    // Models from the distribution's package are trusted; the ones users install may be broken.
    bool isShippedWithSystem() const;
    bool operator==(const PocketSphinxModel&) const = default;

    // The model for a locale such as "en-US", looked for in `searchFolders()` in order, each holding
    // one folder per locale whose name matches the locale case-insensitively.
    static std::optional<PocketSphinxModel> find(const QString& localeIdentifier);
    // The model inside one locale folder, or nothing when a piece is missing.
    static std::optional<PocketSphinxModel> inFolder(const QString& folder);
    // Models the user installs come first, then the ones the system ships.
    static QStringList searchFolders();
};
