// Prints what a large model download costs: throughput from a local server, how much the resident
// memory grows while 600 MB stream to disk, and how long after the server's last byte the user is
// told the model is installed (the file is renamed into place, never copied).
#include "BenchClock.h"
#include "Engines/ModelDownloader.h"
#include "ProcessStats.h"
#include "Shared/AppPaths.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <ctime>
#include <unistd.h>

namespace {

constexpr qint64 kSize = 600LL << 20;

// Serves a kSize-byte model in whisper.cpp's layout (no layers; its last tensor takes the bulk),
// prints its port, then the monotonic time of the last byte it sent. A process of its own, so its
// buffers are not counted as ours.
const char* kServer = R"(
import socket, struct, sys, time
size = int(sys.argv[1])
head = struct.pack("<I11i", 0x67676D6C, 51865, 1500, 8, 1, 0, 448, 8, 1, 0, 80, 1)
head += struct.pack("<2i", 2, 3) + bytes(24) + struct.pack("<iI", 1, 1) + b"!"
for i in range(10):
    name = b"tensor.%d" % i
    head += struct.pack("<4i", 1, len(name), 0, 8) + name + b"w" * 32
name = b"decoder.token_embedding.weight"
head += struct.pack("<4i", 1, len(name), 24, size - len(head) - 16 - len(name)) + name
server = socket.socket(); server.bind(("127.0.0.1", 0)); server.listen(1)
print(server.getsockname()[1], flush=True)
connection, _ = server.accept()
connection.recv(65536)
connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\nConnection: close\r\n\r\n" % size)
chunk = head + b"w" * ((4 << 20) - len(head))
sent = 0
while sent < size:
    piece = chunk[: min(len(chunk), size - sent)]
    connection.sendall(piece); sent += len(piece)
    chunk = b"w" * len(chunk)
print(time.monotonic(), flush=True)
connection.close()
)";

// Notes when the outcome is shown instead of waiting for a click.
class TimedAlerts final : public Alerts {
public:
    double shownAt = 0;
    QString text;
    int runModal(const Alert& alert) override
    {
        shownAt = BenchClock::seconds(CLOCK_MONOTONIC);
        text = alert.informativeText;
        return 0;
    }
};

}

int main(int argc, char** argv)
{
    QTemporaryDir data;
    qputenv("XDG_DATA_HOME", data.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", data.path().toUtf8());
    QApplication app(argc, argv);

    QProcess server;
    server.start(QStringLiteral("python3"), {QStringLiteral("-c"), QString::fromLatin1(kServer), QString::number(kSize)});
    if (!server.waitForReadyRead(10000)) {
        std::fprintf(stderr, "the local server did not start\n");
        return 1;
    }
    const int port = server.readLine().trimmed().toInt();

    auto* alerts = new TimedAlerts;
    const QUrl address(QStringLiteral("http://127.0.0.1:%1/").arg(port));
    ModelDownloader downloader(std::unique_ptr<Alerts>(alerts), {address, address, address});
    // Already there, so the one connection the server takes brings the Whisper model.
    QFile vad(ModelDownloader::Model::voiceActivity().filePath());
    if (!QDir().mkpath(AppPaths::modelsFolder()) || !vad.open(QIODevice::WriteOnly)) {
        std::fprintf(stderr, "cannot write into the models folder\n");
        return 1;
    }
    const qint64 startKb = ProcessStats::residentKb(getpid());
    qint64 peakKb = startKb;
    QTimer sampler;
    QObject::connect(&sampler, &QTimer::timeout, [&] { peakKb = qMax(peakKb, ProcessStats::residentKb(getpid())); });
    sampler.start(50);

    QElapsedTimer elapsed;
    elapsed.start();
    bool installed = false;
    downloader.download(ModelDownloader::Model::recommended(), [&](bool success) {
        installed = success;
        app.quit();
    });
    app.exec();
    const double seconds = elapsed.nsecsElapsed() / 1e9;
    server.waitForFinished(10000);
    const double lastByteAt = server.readAll().trimmed().toDouble();

    if (!installed) {
        std::fprintf(stderr, "download failed: %s\n", qPrintable(alerts->text));
        return 1;
    }
    std::printf("model download (600 MB from 127.0.0.1)\n");
    std::printf("  throughput:                    %.0f MB/s\n", kSize / 1048576.0 / seconds);
    std::printf("  resident memory growth:        %.1f MB (target <= 20 MB)\n", (peakKb - startKb) / 1024.0);
    std::printf("  last byte -> installed alert:  %.1f ms (target <= 50 ms)\n", (alerts->shownAt - lastByteAt) * 1e3);
    return 0;
}
