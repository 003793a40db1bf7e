#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <variant>

// The newest release an appcast announces (Sparkle's RSS: one <item> per release, its version in
// sparkle:shortVersionString or sparkle:version, on the item or on its <enclosure>).
struct AppcastRelease {
    QString version; // as the feed writes it for people, without a leading "v" ("0.3.0")
    QUrl downloadPage; // the item's <link>, else its enclosure, else the channel's <link>

    // The newest release in the feed, or why the feed offers none (in Portuguese, for the user).
    static std::variant<AppcastRelease, QString> parse(const QByteArray& feed);
};

// Compares dotted versions number by number ("0.10.0" is newer than "0.9.9"; a leading "v" and any
// "-suffix" are ignored; "dev" counts as older than every release). Negative, zero or positive.
int compareVersions(const QString& left, const QString& right);
