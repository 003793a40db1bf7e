#pragma once

#include <QList>
#include <QString>

// A recognition language offered in the menu.
struct LanguageOption {
    QString id;
    QString label;

    static const QList<LanguageOption>& all();
};
