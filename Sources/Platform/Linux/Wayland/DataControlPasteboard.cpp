#include "DataControlPasteboard.h"

#include "Shared/Logging.h"
#include "WaylandClient.h"

#include "wlr-data-control-unstable-v1-client-protocol.h"

#include <wayland-client.h>

#include <QElapsedTimer>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace {

// A clipboard owner that stops answering gives up its data after this long; the rest of the
// clipboard is still saved.
constexpr int receiveTimeoutMs = 1500;

// The names under which programs ask for plain text on Wayland (and through XWayland).
const QStringList textTypes = {QStringLiteral("text/plain;charset=utf-8"), QStringLiteral("text/plain"),
    QStringLiteral("UTF8_STRING"), QStringLiteral("STRING"), QStringLiteral("TEXT")};

// Reads a pipe to its end, waiting at most the timeout for each further piece.
std::optional<QByteArray> readToEnd(int fd)
{
    QByteArray bytes;
    char buffer[65536];
    for (;;) {
        pollfd waiting{fd, POLLIN, 0};
        const int ready = ::poll(&waiting, 1, receiveTimeoutMs);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return std::nullopt;
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            return bytes;
        bytes.append(buffer, count);
    }
}

// Writes the whole of `bytes` and closes the descriptor, on a thread of its own: a reader may take
// its time, or go away (its broken pipe must not end this process, hence SIGPIPE blocked there).
void sendInBackground(int fd, QByteArray bytes)
{
    std::thread([fd, bytes = std::move(bytes)] {
        sigset_t pipeSignal;
        sigemptyset(&pipeSignal);
        sigaddset(&pipeSignal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
        qsizetype written = 0;
        while (written < bytes.size()) {
            const ssize_t count = ::write(fd, bytes.constData() + written, size_t(bytes.size() - written));
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0)
                break;
            written += count;
        }
        ::close(fd);
    }).detach();
}

}

DataControlPasteboard::DataControlPasteboard(std::shared_ptr<WaylandClient> client)
    : m_client(std::move(client))
{
    if (!m_client || !m_client->dataControl() || !m_client->seat())
        return;
    static const zwlr_data_control_device_v1_listener listener = {
        .data_offer = &DataControlPasteboard::onDataOffer,
        .selection = &DataControlPasteboard::onSelection,
        .finished = &DataControlPasteboard::onFinished,
        .primary_selection = nullptr,
    };
    m_device = zwlr_data_control_manager_v1_get_data_device(m_client->dataControl(), m_client->seat());
    zwlr_data_control_device_v1_add_listener(m_device, &listener, this);
    m_client->roundtrip();
}

DataControlPasteboard::~DataControlPasteboard()
{
    dropOwnSource();
    for (const auto& [offer, types] : m_announced)
        zwlr_data_control_offer_v1_destroy(offer);
    if (m_selection)
        zwlr_data_control_offer_v1_destroy(m_selection);
    if (m_device)
        zwlr_data_control_device_v1_destroy(m_device);
    if (m_client)
        m_client->flush();
}

void DataControlPasteboard::onDataOffer(void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer)
{
    static const zwlr_data_control_offer_v1_listener listener = {.offer = &DataControlPasteboard::onOfferedType};
    auto* self = static_cast<DataControlPasteboard*>(data);
    self->m_announced[offer] = {};
    zwlr_data_control_offer_v1_add_listener(offer, &listener, self);
}

void DataControlPasteboard::onOfferedType(void* data, zwlr_data_control_offer_v1* offer, const char* mimeType)
{
    auto* self = static_cast<DataControlPasteboard*>(data);
    const auto found = self->m_announced.find(offer);
    if (found != self->m_announced.end())
        found->second.append(QString::fromUtf8(mimeType));
}

void DataControlPasteboard::onSelection(void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer)
{
    auto* self = static_cast<DataControlPasteboard*>(data);
    if (self->m_selection)
        zwlr_data_control_offer_v1_destroy(self->m_selection);
    self->m_selection = offer;
    self->m_selectionTypes.clear();
    if (const auto found = self->m_announced.find(offer); found != self->m_announced.end()) {
        self->m_selectionTypes = found->second;
        self->m_announced.erase(found);
    }
}

void DataControlPasteboard::onFinished(void* data, zwlr_data_control_device_v1* device)
{
    auto* self = static_cast<DataControlPasteboard*>(data);
    qCWarning(lcInsert) << "The compositor withdrew clipboard access; dictated text can no longer be pasted";
    zwlr_data_control_device_v1_destroy(device);
    self->m_device = nullptr;
}

void DataControlPasteboard::onSend(void* data, zwlr_data_control_source_v1* source, const char* mimeType, int32_t fd)
{
    auto* self = static_cast<DataControlPasteboard*>(data);
    const QString type = QString::fromUtf8(mimeType);
    if (source == self->m_source) {
        for (const auto& [offered, bytes] : self->m_sourceEntries) {
            if (offered == type) {
                sendInBackground(fd, bytes);
                return;
            }
        }
    }
    ::close(fd);
}

void DataControlPasteboard::onCancelled(void* data, zwlr_data_control_source_v1* source)
{
    // Somebody else copied: the clipboard is theirs now.
    auto* self = static_cast<DataControlPasteboard*>(data);
    if (source == self->m_source)
        self->dropOwnSource();
}

void DataControlPasteboard::synchronise()
{
    if (m_client)
        m_client->roundtrip();
}

int DataControlPasteboard::itemCount()
{
    return types(0).isEmpty() ? 0 : 1;
}

QStringList DataControlPasteboard::types(int index)
{
    synchronise();
    if (index != 0)
        return {};
    if (m_source) {
        QStringList own;
        for (const auto& entry : m_sourceEntries)
            own.append(entry.first);
        return own;
    }
    return m_selection ? m_selectionTypes : QStringList{};
}

std::optional<QByteArray> DataControlPasteboard::data(int index, const QString& type)
{
    if (index != 0)
        return std::nullopt;
    // Our own contents come from memory: asking the compositor would have it ask us, and we would
    // be waiting for ourselves.
    if (m_source) {
        for (const auto& [offered, bytes] : m_sourceEntries) {
            if (offered == type)
                return bytes.isEmpty() ? std::nullopt : std::optional<QByteArray>(bytes);
        }
        return std::nullopt;
    }
    std::optional<QByteArray> bytes = receive(type);
    if (bytes && bytes->isEmpty())
        return std::nullopt;
    return bytes;
}

std::optional<QByteArray> DataControlPasteboard::receive(const QString& type)
{
    if (!m_selection || !m_selectionTypes.contains(type))
        return std::nullopt;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        qCWarning(lcInsert) << "Cannot open a pipe to read the clipboard:" << std::strerror(errno);
        return std::nullopt;
    }
    zwlr_data_control_offer_v1_receive(m_selection, type.toUtf8().constData(), ends[1]);
    m_client->flush();
    ::close(ends[1]);
    QElapsedTimer timer;
    timer.start();
    std::optional<QByteArray> bytes = readToEnd(ends[0]);
    ::close(ends[0]);
    if (!bytes)
        qCWarning(lcInsert) << "The clipboard owner did not give its" << type << "data within" << timer.elapsed() << "ms";
    return bytes;
}

void DataControlPasteboard::offer(Entries entries)
{
    if (!m_device)
        return;
    dropOwnSource();
    zwlr_data_control_source_v1* source = nullptr;
    if (!entries.empty()) {
        static const zwlr_data_control_source_v1_listener listener = {
            .send = &DataControlPasteboard::onSend,
            .cancelled = &DataControlPasteboard::onCancelled,
        };
        source = zwlr_data_control_manager_v1_create_data_source(m_client->dataControl());
        zwlr_data_control_source_v1_add_listener(source, &listener, this);
        for (const auto& entry : entries)
            zwlr_data_control_source_v1_offer(source, entry.first.toUtf8().constData());
        m_source = source;
        m_sourceEntries = std::move(entries);
    }
    zwlr_data_control_device_v1_set_selection(m_device, source);
    m_client->flush();
}

void DataControlPasteboard::dropOwnSource()
{
    if (!m_source)
        return;
    zwlr_data_control_source_v1_destroy(m_source);
    m_source = nullptr;
    m_sourceEntries.clear();
}

void DataControlPasteboard::clearContents()
{
    offer({});
}

void DataControlPasteboard::setString(const QString& text)
{
    Entries entries;
    const QByteArray utf8 = text.toUtf8();
    for (const QString& type : textTypes)
        entries.emplace_back(type, utf8);
    offer(std::move(entries));
}

void DataControlPasteboard::writeItems(const std::vector<Item>& items)
{
    // The clipboard holds one item: the first item's data wins for a type several give.
    Entries entries;
    for (const Item& item : items) {
        for (const auto& entry : item.entries()) {
            const bool known = std::any_of(entries.begin(), entries.end(), [&](const auto& kept) { return kept.first == entry.first; });
            if (!known)
                entries.push_back(entry);
        }
    }
    offer(std::move(entries));
}

bool DataControlPasteboard::ownsContents()
{
    synchronise();
    return m_source != nullptr;
}
