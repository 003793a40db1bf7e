// Prints how long the history takes for what the user waits on: an add (with its atomic write) on a
// full history, loading a very large file, and one keystroke in the history window's search field.
#include "BenchClock.h"
#include "History/HistoryStore.h"
#include "History/HistoryWindow.h"
#include "Platform/Fakes/FakeAlerts.h"
#include "Platform/Fakes/FakePasteboard.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QLineEdit>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <vector>

namespace {

struct Figures {
    double medianMs;
    double worstMs;
    double cpuMedianMs; // this thread's own work, without the time other processes took the cores
};

Figures measure(int runs, const std::function<void()>& once)
{
    std::vector<double> times;
    std::vector<double> cpuTimes;
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer timer;
        const double cpuStart = BenchClock::seconds(CLOCK_THREAD_CPUTIME_ID) * 1e3;
        timer.start();
        once();
        times.push_back(timer.nsecsElapsed() / 1e6);
        cpuTimes.push_back(BenchClock::seconds(CLOCK_THREAD_CPUTIME_ID) * 1e3 - cpuStart);
    }
    std::sort(times.begin(), times.end());
    std::sort(cpuTimes.begin(), cpuTimes.end());
    return {times[times.size() / 2], times.back(), cpuTimes[cpuTimes.size() / 2]};
}

void print(const char* what, Figures figures, double targetMs)
{
    std::printf("%-44s median %7.3f ms  worst %7.3f ms  cpu %7.3f ms  (target <= %.0f ms) %s\n", what, figures.medianMs, figures.worstMs,
        figures.cpuMedianMs, targetMs, figures.medianMs <= targetMs ? "ok" : "TOO SLOW");
}

// Dictations of everyday length, with accents, so encoding and searching do real work.
QString sampleText(int n)
{
    return QStringLiteral("Ditado %1: reunião às três horas com a equipe de operações; revisar o relatório "
                          "e enviar as correções até sexta-feira, por favor.")
        .arg(n);
}

void fill(HistoryStore& store, int count)
{
    for (int n = 0; n < count; ++n)
        store.add(sampleText(n), n % 3 ? QStringLiteral("Firefox") : QStringLiteral("Editor de Texto"));
}

void benchAdd(const QString& folder)
{
    HistoryStore store(folder + QStringLiteral("/add/history.json"));
    fill(store, HistoryStore::maximumEntries);
    int n = 0;
    print("add with 200 entries stored (atomic write)", measure(300, [&] { store.add(sampleText(++n), QStringLiteral("Firefox")); }), 5);
}

void benchLoad(const QString& folder)
{
    const QString path = folder + QStringLiteral("/load/history.json");
    {
        HistoryStore writer(path);
        fill(writer, HistoryStore::maximumEntries);
    }
    // The store never writes more than 200, so the big file is the 200 repeated with fresh ids.
    QFile file(path);
    file.open(QIODevice::ReadOnly);
    QByteArray entries = file.readAll().mid(1);
    entries.chop(1);
    QByteArray big = "[";
    for (int copy = 0; copy < 50; ++copy) {
        QByteArray block = entries;
        for (int i = block.indexOf("\"id\":\""); i >= 0; i = block.indexOf("\"id\":\"", i + 1))
            block.replace(i + 6, 36, QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper().toLatin1());
        big += (copy ? "," : "") + block;
    }
    big += "]";
    file.close();
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    file.write(big);
    file.close();

    qsizetype loaded = 0;
    const Figures figures = measure(20, [&] { loaded = HistoryStore(path).entries().size(); });
    std::printf("  (file of %lld entries, %.1f MB, loaded %lld)\n", 50LL * HistoryStore::maximumEntries, big.size() / 1e6,
        static_cast<long long>(loaded));
    print("load a 10,000-entry file", figures, 50);
}

void benchKeystroke(const QString& folder)
{
    HistoryStore store(folder + QStringLiteral("/window/history.json"));
    fill(store, HistoryStore::maximumEntries);
    FakeAlerts alerts;
    HistoryWindow window(store, alerts, std::make_shared<FakePasteboard>());
    window.show();
    auto* search = window.window()->findChild<QLineEdit*>(QStringLiteral("searchField"));
    const QStringList typing = {QStringLiteral("r"), QStringLiteral("re"), QStringLiteral("reu"), QStringLiteral("reun"),
        QStringLiteral("reuni"), QStringLiteral("reuniã"), QStringLiteral("reunião"), QStringLiteral("f"), QStringLiteral("fi"),
        QStringLiteral("fir"), QStringLiteral("")};
    int n = 0;
    print("one search keystroke over 200 entries", measure(220, [&] { search->setText(typing[n++ % typing.size()]); }), 2);
}

}

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QTemporaryDir folder;
    if (!folder.isValid()) {
        std::fprintf(stderr, "cannot make a temporary folder: %s\n", qPrintable(folder.errorString()));
        return 1;
    }
    benchAdd(folder.path());
    benchLoad(folder.path());
    benchKeystroke(folder.path());
    return 0;
}
