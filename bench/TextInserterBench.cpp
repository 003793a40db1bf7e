// Figures of text insertion on the real X server (run it under scripts/with-harness.sh):
//  - with a 5 MB PNG image on the clipboard, offered by another program: the time insert() takes
//    to save it, and the time the restoration takes to put it back;
//  - when the pasted text lands in a focused text field, counted from the call (target 50 ms),
//    with no key held and with AltGr (the dictation key) held down through the paste.

#include "BenchClock.h"
#include "Dictation/TextInserter.h"
#include "Platform/Linux/X11/X11ClipboardPasteboard.h"
#include "Platform/Linux/X11/XTestKeyPoster.h"
#include "XTestKeyboard.h"

#include <QApplication>
#include <QBuffer>
#include <QElapsedTimer>
#include <QImage>
#include <QPlainTextEdit>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryFile>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <numeric>
#include <vector>

using namespace std::chrono_literals;

namespace {

// The X11 session's own clipboard and paste keys, as the program uses them there.
std::shared_ptr<Pasteboard> x11Clipboard()
{
    static const auto clipboard = std::make_shared<X11ClipboardPasteboard>();
    return clipboard;
}

std::shared_ptr<KeyPoster> x11Keys()
{
    static const auto keys = std::make_shared<XTestKeyPoster>();
    return keys;
}

template <typename Call> auto timed(double& totalMs, Call call)
{
    QElapsedTimer clock;
    clock.start();
    auto result = call();
    totalMs += double(clock.nsecsElapsed()) / 1e6;
    return result;
}

// Forwards to the real clipboard, timing the save (from the request to its answer, read while the
// event loop runs) and the writes that follow the dictated text (the restoration).
class TimedPasteboard final : public Pasteboard {
public:
    double saveMs = 0;
    double restoreMs = 0;
    bool restored = false;

    void snapshot(QObject* context, std::function<void(std::optional<Contents>)> done) override
    {
        auto clock = std::make_shared<QElapsedTimer>();
        clock->start();
        m_real->snapshot(context, [this, clock, done = std::move(done)](std::optional<Contents> saved) {
            saveMs += double(clock->nsecsElapsed()) / 1e6;
            done(std::move(saved));
        });
    }
    int itemCount() override { return m_real->itemCount(); }
    QStringList types(int index) override { return m_real->types(index); }
    std::optional<QByteArray> data(int index, const QString& type) override { return m_real->data(index, type); }
    void setString(const QString& text) override { m_real->setString(text); }
    void writeItems(const Contents& items) override
    {
        timed(restoreMs, [&] {
            m_real->writeItems(items);
            return 0;
        });
        restored = true;
    }
    bool ownsContents() override
    {
        return timed(restoreMs, [&] { return m_real->ownsContents(); });
    }

private:
    std::shared_ptr<Pasteboard> m_real = x11Clipboard();
};

QByteArray noisePng(int width, int height)
{
    QImage image(width, height, QImage::Format_ARGB32);
    for (int y = 0; y < height; ++y) {
        auto line = reinterpret_cast<quint32*>(image.scanLine(y));
        QRandomGenerator::global()->fillRange(line, width);
    }
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG", 0);
    return png;
}

void report(const char* what, std::vector<double> values, double target)
{
    std::sort(values.begin(), values.end());
    const double mean = std::accumulate(values.begin(), values.end(), 0.0) / double(values.size());
    std::printf("%-48s mean %7.2f ms  min %7.2f  median %7.2f  max %7.2f  (target %g ms, %zu runs)\n", what, mean, values.front(),
        values[values.size() / 2], values.back(), target, values.size());
}

// The image offered by another program, the way a screenshot tool leaves it.
void measureImageSaveAndRestore(const QByteArray& png, int runs)
{
    std::vector<double> saves;
    std::vector<double> restores;
    QTemporaryFile file;
    file.open();
    file.write(png);
    file.flush();
    for (int run = 0; run < runs; ++run) {
        QProcess owner;
        owner.start(QStringLiteral("xclip"),
            {QStringLiteral("-selection"), QStringLiteral("clipboard"), QStringLiteral("-t"), QStringLiteral("image/png"),
                QStringLiteral("-i"), file.fileName()});
        owner.waitForFinished(); // xclip leaves a child serving the selection
        // Wait until the image is on offer, so the save below reads it rather than nothing.
        BenchClock::spinUntil([] { return x11Clipboard()->itemCount() > 0; }, 2s);
        auto pasteboard = std::make_shared<TimedPasteboard>();
        QElapsedTimer clock;
        clock.start();
        TextInserter::insert(QStringLiteral("ditado"), {pasteboard, x11Keys(), {}});
        const double callMs = double(clock.nsecsElapsed()) / 1e6;
        BenchClock::spinUntil([&] { return pasteboard->restored; }, 3s);
        saves.push_back(pasteboard->saveMs);
        restores.push_back(pasteboard->restoreMs);
        if (run == 0)
            std::printf("first run: insert() returned after %.2f ms, %s restored\n", callMs, pasteboard->restored ? "clipboard" : "NOT");
        // Our process stops serving the image before xclip offers it again.
        x11Clipboard()->writeItems({});
        BenchClock::spinUntil([] { return false; }, 50ms);
    }
    report("save 5 MB image from another program", saves, 20);
    report("restore 5 MB image", restores, 20);
}

// With `heldKeycode` (0: none) held down by XTest, as a user's keyboard would, through each paste.
void measurePasteLanding(int runs, int heldKeycode, const char* label)
{
    QPlainTextEdit field;
    field.resize(400, 200);
    field.show();
    field.activateWindow();
    BenchClock::spinUntil([&] { return field.hasFocus() && QGuiApplication::focusWindow() == field.windowHandle(); }, 3s);
    if (!field.hasFocus()) {
        std::printf("the text field did not get the keyboard focus: no paste timing\n");
        return;
    }
    std::vector<double> landings;
    for (int run = 0; run < runs; ++run) {
        field.clear();
        QElapsedTimer clock;
        double landedAt = -1;
        const auto connection = QObject::connect(&field, &QPlainTextEdit::textChanged, &field, [&] {
            if (landedAt < 0 && !field.toPlainText().isEmpty())
                landedAt = double(clock.nsecsElapsed()) / 1e6;
        });
        if (heldKeycode)
            XTestKeyboard::press(heldKeycode);
        clock.start();
        TextInserter::insert(QStringLiteral("Olá, ação — ñ 🎙️"), {x11Clipboard(), x11Keys(), {}});
        BenchClock::spinUntil([&] { return landedAt >= 0; }, 2s);
        if (heldKeycode)
            XTestKeyboard::release(heldKeycode);
        QObject::disconnect(connection);
        if (landedAt >= 0)
            landings.push_back(landedAt);
        BenchClock::spinUntil([] { return false; }, 700ms); // let the restoration pass
    }
    std::printf("%s: landed in %zu of %d runs\n", label, landings.size(), runs);
    if (!landings.empty())
        report(label, landings, 50);
}

}

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    if (QGuiApplication::platformName() != QLatin1String("xcb")) {
        std::printf("needs an X server: run under scripts/with-harness.sh\n");
        return 1;
    }
    const QByteArray png = noisePng(1280, 1024);
    std::printf("image: %.2f MB PNG\n", double(png.size()) / (1024.0 * 1024.0));
    measureImageSaveAndRestore(png, 10);
    measurePasteLanding(20, 0, "paste lands after the call");
    const int rightAlt = 108;
    measurePasteLanding(20, rightAlt, "paste lands after the call, AltGr held");
    return 0;
}
