#include "DataControlPasteboard.h"

#include "Shared/Logging.h"
#include "Shared/WorkerThreads.h"
#include "WaylandClient.h"

#include "wlr-data-control-unstable-v1-client-protocol.h"

#include <wayland-client.h>

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QSocketNotifier>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

// A clipboard owner that stops answering gives up its data after this long (a type read alone: for
// each piece; a snapshot: for all types together); the rest of the clipboard is still saved.
constexpr int receiveTimeoutMs = 1500;
// How often a writer waiting for its reader looks whether the pasteboard is going.
constexpr int writerStopCheckMs = 100;
// How long the pasteboard, when it goes, lets its writers finish before it stops them.
constexpr int writersGraceMs = 500;

// The names under which programs ask for plain text on Wayland (and through XWayland).
const QStringList textTypes = {QStringLiteral("text/plain;charset=utf-8"), QStringLiteral("text/plain"), QStringLiteral("UTF8_STRING"),
    QStringLiteral("STRING"), QStringLiteral("TEXT")};

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

// Nothing for a type that gave no bytes: there is nothing to put back under it.
std::optional<QByteArray> nonEmpty(const QByteArray& bytes)
{
    return bytes.isEmpty() ? std::nullopt : std::optional<QByteArray>(bytes);
}

// One save of another program's clipboard: every type asked for at once, each read through a
// non-blocking pipe of its own as the owner writes it, all under one deadline; a type unfinished by
// then is left out, the others kept. It belongs to the caller's context object, so it ends with
// it: descriptors closed, nothing answered.
class SnapshotRead final : public QObject {
public:
    // Each type with its bytes, or nothing when its owner gave none in time.
    using Results = std::vector<std::pair<QString, std::optional<QByteArray>>>;

    SnapshotRead(QObject* context, std::function<void(Results)> done)
        : QObject(context)
        , m_done(std::move(done))
    {
        m_clock.start();
    }

    ~SnapshotRead() override
    {
        for (Part& part : m_parts)
            end(part);
    }

    // Reads `type` from `fd`, the read end of the pipe the owner was handed.
    void add(const QString& type, int fd)
    {
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        auto* notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        const size_t index = m_parts.size();
        connect(notifier, &QSocketNotifier::activated, this, [this, index] { readMore(index); });
        m_parts.push_back(Part{type, fd, notifier, {}, false});
    }

    // Waits for the owner from now on, or answers at once when nothing was asked for.
    void start()
    {
        QTimer::singleShot(receiveTimeoutMs, this, &SnapshotRead::answer);
        answerIfAllEnded();
    }

private:
    struct Part {
        QString type;
        int fd;
        QSocketNotifier* notifier;
        QByteArray bytes;
        bool complete;
    };

    void readMore(size_t index)
    {
        Part& part = m_parts[index];
        if (part.fd < 0)
            return;
        char buffer[65536];
        for (;;) {
            const ssize_t count = ::read(part.fd, buffer, sizeof buffer);
            if (count > 0) {
                part.bytes.append(buffer, count);
                continue;
            }
            if (count < 0 && errno == EINTR)
                continue;
            if (count < 0 && errno == EAGAIN)
                return;
            part.complete = count == 0;
            end(part);
            break;
        }
        answerIfAllEnded();
    }

    // The notifier may be the one whose signal runs now: it is let go of, not deleted.
    static void end(Part& part)
    {
        if (part.fd < 0)
            return;
        part.notifier->setEnabled(false);
        part.notifier->deleteLater();
        ::close(part.fd);
        part.fd = -1;
    }

    void answerIfAllEnded()
    {
        if (std::all_of(m_parts.begin(), m_parts.end(), [](const Part& part) { return part.fd < 0; }))
            answer();
    }

    void answer()
    {
        if (m_answered)
            return;
        m_answered = true;
        Results results;
        for (Part& part : m_parts) {
            if (part.fd >= 0)
                qCWarning(lcInsert) << "The clipboard owner did not give its" << part.type << "data within" << m_clock.elapsed() << "ms";
            end(part);
            results.emplace_back(part.type, part.complete ? nonEmpty(part.bytes) : std::nullopt);
        }
        deleteLater();
        // Whatever the answer sets off may end the pasteboard, and this with it.
        const std::function<void(Results)> done = std::move(m_done);
        done(std::move(results));
    }

    std::function<void(Results)> m_done;
    std::vector<Part> m_parts;
    QElapsedTimer m_clock;
    bool m_answered = false;
};

// Writes the whole of `bytes` and closes the descriptor. The reader may take its time, or go away:
// its broken pipe must not end this process, hence SIGPIPE blocked on the writing thread. `stop`
// ends the wait for a reader that takes no more.
void writeAll(int fd, const QByteArray& bytes, const std::atomic<bool>& stop)
{
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    qsizetype written = 0;
    while (written < bytes.size() && !stop) {
        pollfd writable{fd, POLLOUT, 0};
        const int ready = ::poll(&writable, 1, writerStopCheckMs);
        if (ready < 0 && errno != EINTR)
            break;
        if (ready <= 0)
            continue;
        const ssize_t count = ::write(fd, bytes.constData() + written, size_t(bytes.size() - written));
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count <= 0)
            break;
        written += count;
    }
    ::close(fd);
}

}

DataControlPasteboard::DataControlPasteboard(std::shared_ptr<WaylandClient> client)
    : m_client(std::move(client))
    , m_writers(std::make_unique<WorkerThreads>(std::chrono::milliseconds(writersGraceMs)))
{
    if (!m_client || !m_client->dataControl() || !m_client->seat())
        return;
    static const zwlr_data_control_device_v1_listener listener = {
        .data_offer = &DataControlPasteboard::onDataOffer,
        .selection = &DataControlPasteboard::onSelection,
        .finished = &DataControlPasteboard::onFinished,
        .primary_selection = &DataControlPasteboard::onPrimarySelection,
    };
    m_device = zwlr_data_control_manager_v1_get_data_device(m_client->dataControl(), m_client->seat());
    zwlr_data_control_device_v1_add_listener(m_device, &listener, this);
    m_client->roundtrip();
}

DataControlPasteboard::~DataControlPasteboard()
{
    for (const QPointer<QObject>& snapshot : m_snapshots)
        delete snapshot.data();
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

void DataControlPasteboard::onPrimarySelection(void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer)
{
    // The ext protocol announces the primary selection to every client; only the clipboard matters.
    auto* self = static_cast<DataControlPasteboard*>(data);
    if (offer && self->m_announced.erase(offer))
        zwlr_data_control_offer_v1_destroy(offer);
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
                // One thread per reader, so a slow one never stalls the main thread.
                self->m_writers->start([fd, bytes = bytes](const std::atomic<bool>& stop) { writeAll(fd, bytes, stop); });
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
        m_client->readArrived();
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
                return nonEmpty(bytes);
        }
        return std::nullopt;
    }
    const std::optional<QByteArray> bytes = receive(type);
    return bytes ? nonEmpty(*bytes) : std::nullopt;
}

int DataControlPasteboard::requestData(const QString& type)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        qCWarning(lcInsert) << "Cannot open a pipe to read the clipboard:" << qt_error_string(errno);
        return -1;
    }
    // The request carries a copy of the write end, so ours can go at once: the pipe ends when the
    // owner closes its copy.
    zwlr_data_control_offer_v1_receive(m_selection, type.toUtf8().constData(), ends[1]);
    ::close(ends[1]);
    return ends[0];
}

std::optional<QByteArray> DataControlPasteboard::receive(const QString& type)
{
    if (!m_selection || !m_selectionTypes.contains(type))
        return std::nullopt;
    const int fd = requestData(type);
    if (fd < 0)
        return std::nullopt;
    m_client->flush();
    QElapsedTimer timer;
    timer.start();
    std::optional<QByteArray> bytes = readToEnd(fd);
    ::close(fd);
    if (!bytes)
        qCWarning(lcInsert) << "The clipboard owner did not give its" << type << "data within" << timer.elapsed() << "ms";
    return bytes;
}

// The compositor answers a sync after every selection event it sent before: the clipboard seen
// then is the one the user left, without the main thread waiting for the answer.
void DataControlPasteboard::snapshot(QObject* context, std::function<void(std::optional<Contents>)> done)
{
    if (!m_client) {
        takeSnapshot(context, std::move(done));
        return;
    }
    m_client->sync(&m_answers, [this, context = QPointer<QObject>(context), done = std::move(done)] {
        if (context)
            takeSnapshot(context, done);
    });
}

void DataControlPasteboard::takeSnapshot(QObject* context, std::function<void(std::optional<Contents>)> done)
{
    // Our own contents come from memory, as in data().
    if (m_source) {
        Item own;
        for (const auto& [type, bytes] : m_sourceEntries)
            keep(own, type, nonEmpty(bytes));
        done(Contents{own});
        return;
    }
    if (!m_selection || m_selectionTypes.isEmpty()) {
        done(Contents{});
        return;
    }
    auto* read = new SnapshotRead(context, [done = std::move(done)](SnapshotRead::Results results) {
        Item copy;
        for (const auto& [type, bytes] : results)
            keep(copy, type, bytes);
        if (copy.entries().empty()) {
            qCWarning(lcInsert) << "The clipboard owner gave none of its" << results.size() << "type(s); its contents cannot be saved";
            done(std::nullopt);
            return;
        }
        done(Contents{copy});
    });
    for (const QString& type : m_selectionTypes) {
        if (const int fd = requestData(type); fd >= 0)
            read->add(type, fd);
    }
    m_client->flush();
    std::erase_if(m_snapshots, [](const QPointer<QObject>& snapshot) { return snapshot.isNull(); });
    m_snapshots.emplace_back(read);
    read->start();
}

void DataControlPasteboard::offer(Entries entries)
{
    if (!m_device)
        return;
    zwlr_data_control_source_v1* previous = std::exchange(m_source, nullptr);
    m_sourceEntries.clear();
    if (!entries.empty()) {
        static const zwlr_data_control_source_v1_listener listener = {
            .send = &DataControlPasteboard::onSend,
            .cancelled = &DataControlPasteboard::onCancelled,
        };
        m_source = zwlr_data_control_manager_v1_create_data_source(m_client->dataControl());
        zwlr_data_control_source_v1_add_listener(m_source, &listener, this);
        for (const auto& entry : entries)
            zwlr_data_control_source_v1_offer(m_source, entry.first.toUtf8().constData());
        m_sourceEntries = std::move(entries);
    }
    // The new selection replaces the old in one request, and our old source goes only after it:
    // destroying the source that holds the selection would empty the clipboard for a moment.
    zwlr_data_control_device_v1_set_selection(m_device, m_source);
    if (previous)
        zwlr_data_control_source_v1_destroy(previous);
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

void DataControlPasteboard::setString(const QString& text)
{
    Entries entries;
    const QByteArray utf8 = text.toUtf8();
    for (const QString& type : textTypes)
        entries.emplace_back(type, utf8);
    offer(std::move(entries));
}

void DataControlPasteboard::writeItems(const Contents& items)
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
