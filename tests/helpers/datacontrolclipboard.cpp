// The Wayland clipboard through data-control (the standard protocol where the compositor has it,
// else wlroots'), as other programs use it, for tests on servers wl-clipboard cannot speak to.
// Usage: datacontrolclipboard copy TYPE (owns the clipboard with standard input's bytes until
// somebody else copies) | paste TYPE (status 1 if it has none) | types | manager (a clipboard
// manager: puts the newest text copied back whenever the clipboard is emptied, printing "refilled";
// "ready" once it watches).

#include "Platform/Linux/Wayland/DataControlPasteboard.h"
#include "Platform/Linux/Wayland/WaylandClient.h"

#include "wlr-data-control-unstable-v1-client-protocol.h"

#include <QCoreApplication>
#include <QFile>
#include <QSocketNotifier>
#include <QTimer>

#include <cstdio>
#include <map>

#include <fcntl.h>
#include <unistd.h>

namespace {

const char* const textType = "text/plain;charset=utf-8";

// Reacts to each selection event as it comes, as Klipper and its kind do: an empty clipboard is
// refilled before anything else can happen, and every other selection is read for its text.
class Manager {
public:
    explicit Manager(std::shared_ptr<WaylandClient> client)
        : m_client(std::move(client))
    {
        static const zwlr_data_control_device_v1_listener listener = {
            .data_offer = [](void* self, zwlr_data_control_device_v1*,
                              zwlr_data_control_offer_v1* offer) { static_cast<Manager*>(self)->listenToOffer(offer); },
            .selection = [](void* self, zwlr_data_control_device_v1*,
                             zwlr_data_control_offer_v1* offer) { static_cast<Manager*>(self)->onSelection(offer); },
            .finished = [](void*, zwlr_data_control_device_v1*) {},
            .primary_selection =
                [](void*, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer) {
                    if (offer)
                        zwlr_data_control_offer_v1_destroy(offer);
                },
        };
        m_device = zwlr_data_control_manager_v1_get_data_device(m_client->dataControl(), m_client->seat());
        zwlr_data_control_device_v1_add_listener(m_device, &listener, this);
        m_client->roundtrip();
    }

private:
    void listenToOffer(zwlr_data_control_offer_v1* offer)
    {
        static const zwlr_data_control_offer_v1_listener listener
            = {.offer = [](void* self, zwlr_data_control_offer_v1* announced, const char* type) {
                  QByteArray& text = static_cast<Manager*>(self)->m_textTypes[announced];
                  if (text.isEmpty() && QByteArray(type).startsWith("text/plain"))
                      text = type;
              }};
        zwlr_data_control_offer_v1_add_listener(offer, &listener, this);
    }

    void onSelection(zwlr_data_control_offer_v1* offer)
    {
        if (!offer) {
            refill();
            return;
        }
        const QByteArray type = m_textTypes[offer];
        m_textTypes.clear();
        // Read without waiting: the owner may be this very process.
        int ends[2];
        if (type.isEmpty() || ::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
            zwlr_data_control_offer_v1_destroy(offer);
            return;
        }
        zwlr_data_control_offer_v1_receive(offer, type.constData(), ends[1]);
        ::close(ends[1]);
        zwlr_data_control_offer_v1_destroy(offer);
        m_client->flush();
        auto* notifier = new QSocketNotifier(ends[0], QSocketNotifier::Read);
        auto* bytes = new QByteArray;
        QObject::connect(notifier, &QSocketNotifier::activated, [this, notifier, bytes, fd = ends[0]] {
            char buffer[4096];
            const ssize_t count = ::read(fd, buffer, sizeof buffer);
            if (count > 0) {
                bytes->append(buffer, count);
                return;
            }
            if (count < 0 && errno == EAGAIN)
                return;
            if (!bytes->isEmpty())
                m_newest = *bytes;
            delete bytes;
            notifier->setEnabled(false);
            notifier->deleteLater();
            ::close(fd);
        });
    }

    void refill()
    {
        if (m_newest.isEmpty())
            return;
        static const zwlr_data_control_source_v1_listener listener = {
            .send =
                [](void* self, zwlr_data_control_source_v1*, const char*, int32_t fd) {
                    const QByteArray& text = static_cast<Manager*>(self)->m_newest;
                    [[maybe_unused]] const ssize_t written = ::write(fd, text.constData(), size_t(text.size()));
                    ::close(fd);
                },
            .cancelled = [](void*, zwlr_data_control_source_v1* source) { zwlr_data_control_source_v1_destroy(source); },
        };
        zwlr_data_control_source_v1* source = zwlr_data_control_manager_v1_create_data_source(m_client->dataControl());
        zwlr_data_control_source_v1_add_listener(source, &listener, this);
        for (const char* type : {textType, "text/plain", "UTF8_STRING"})
            zwlr_data_control_source_v1_offer(source, type);
        zwlr_data_control_device_v1_set_selection(m_device, source);
        m_client->flush();
        std::printf("refilled\n");
        std::fflush(stdout);
    }

    std::shared_ptr<WaylandClient> m_client;
    zwlr_data_control_device_v1* m_device = nullptr;
    QByteArray m_newest;
    // The first plain-text type each offer announced.
    std::map<zwlr_data_control_offer_v1*, QByteArray> m_textTypes;
};

}

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments().mid(1);
    const QString mode = arguments.value(0);
    const auto client = WaylandClient::connect();
    if (!client || !client->dataControl() || !client->seat()) {
        std::fprintf(stderr, "no data-control here\n");
        return 1;
    }
    if (mode == QLatin1String("manager")) {
        Manager manager(client);
        std::printf("ready\n");
        std::fflush(stdout);
        return application.exec();
    }
    DataControlPasteboard board(client);
    if (mode == QLatin1String("types")) {
        for (const QString& type : board.types(0))
            std::printf("%s\n", qPrintable(type));
        return 0;
    }
    if (mode == QLatin1String("paste") && arguments.size() == 2) {
        const std::optional<QByteArray> bytes = board.data(0, arguments[1]);
        if (!bytes)
            return 1;
        std::fwrite(bytes->constData(), 1, size_t(bytes->size()), stdout);
        return 0;
    }
    if (mode == QLatin1String("copy") && arguments.size() == 2) {
        QFile input;
        input.open(stdin, QIODevice::ReadOnly);
        Pasteboard::Item item;
        item.setData(arguments[1], input.readAll());
        board.writeItems({item});
        QTimer watch;
        QObject::connect(&watch, &QTimer::timeout, [&] {
            if (!board.ownsContents())
                application.quit();
        });
        watch.start(100);
        return application.exec();
    }
    std::fprintf(stderr, "usage: datacontrolclipboard copy TYPE | paste TYPE | types | manager\n");
    return 2;
}
