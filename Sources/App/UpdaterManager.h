#pragma once

#include <QObject>
#include <QString>

// Checks the update feed: on request (always answers), and once a day by itself (speaks only when
// a newer version exists).
class UpdaterManager : public QObject {
    Q_OBJECT
public:
    // Created at start-up; creating it starts the daily check where the build has a feed.
    static UpdaterManager& shared();
    // The running version ("0.2.0"), or "dev" when the build has none.
    static QString version();

    // "Verificar atualizações…": checks now and shows the answer.
    void checkForUpdates();
};
