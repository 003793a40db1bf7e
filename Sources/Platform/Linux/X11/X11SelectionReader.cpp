#include "X11SelectionReader.h"

#include "Shared/Logging.h"

#include <QDeadlineTimer>
#include <QStringList>

#include <xcb/xcb.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <poll.h>

namespace {

// How often a wait for the owner looks whether it should stop.
constexpr int stopCheckMs = 100;

template <typename Reply> using ReplyPointer = std::unique_ptr<Reply, decltype(&std::free)>;

template <typename Reply> ReplyPointer<Reply> owned(Reply* reply)
{
    return ReplyPointer<Reply>(reply, &std::free);
}

// One reading session: its connection, an invisible window whose property receives the data, and
// the deadline everything shares.
class Session {
public:
    Session(const QByteArray& displayName, std::chrono::milliseconds timeout, const std::atomic<bool>& stop)
        : m_connection(xcb_connect(displayName.isEmpty() ? nullptr : displayName.constData(), nullptr))
        , m_deadline(timeout)
        , m_stop(stop)
    {
        if (xcb_connection_has_error(m_connection))
            return;
        xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data;
        m_window = xcb_generate_id(m_connection);
        const uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
        xcb_create_window(m_connection, XCB_COPY_FROM_PARENT, m_window, screen->root, 0, 0, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
            XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &events);
        m_clipboard = atom("CLIPBOARD");
        m_property = atom("VOXARIA_CLIPBOARD");
        m_incr = atom("INCR");
    }

    ~Session() { xcb_disconnect(m_connection); }

    bool connected() const { return xcb_connection_has_error(m_connection) == 0; }

    xcb_atom_t atom(const char* name)
    {
        const auto reply
            = owned(xcb_intern_atom_reply(m_connection, xcb_intern_atom(m_connection, 0, uint16_t(strlen(name)), name), nullptr));
        return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    }

    QString atomName(xcb_atom_t atom)
    {
        const auto reply = owned(xcb_get_atom_name_reply(m_connection, xcb_get_atom_name(m_connection, atom), nullptr));
        return reply ? QString::fromLatin1(xcb_get_atom_name_name(reply.get()), xcb_get_atom_name_name_length(reply.get())) : QString();
    }

    bool hasOwner()
    {
        const auto reply = owned(xcb_get_selection_owner_reply(m_connection, xcb_get_selection_owner(m_connection, m_clipboard), nullptr));
        return reply && reply->owner != XCB_WINDOW_NONE;
    }

    bool timeIsUp() const { return m_deadline.hasExpired() || m_stop; }

    // The owner's data under `target`, nothing if it refused or ran out of time.
    std::optional<QByteArray> convert(xcb_atom_t target)
    {
        xcb_convert_selection(m_connection, m_window, m_clipboard, target, m_property, XCB_CURRENT_TIME);
        xcb_flush(m_connection);
        const auto notify = waitFor(XCB_SELECTION_NOTIFY);
        if (!notify || reinterpret_cast<xcb_selection_notify_event_t*>(notify.get())->property == XCB_ATOM_NONE)
            return std::nullopt;
        xcb_atom_t type = XCB_ATOM_NONE;
        std::optional<QByteArray> bytes = takeProperty(type);
        return bytes && type == m_incr ? readIncrementally() : bytes;
    }

private:
    // Reads and deletes our property; deleting it is what asks an INCR owner for the next piece.
    std::optional<QByteArray> takeProperty(xcb_atom_t& type)
    {
        const auto reply = owned(xcb_get_property_reply(
            m_connection, xcb_get_property(m_connection, 1, m_window, m_property, XCB_GET_PROPERTY_TYPE_ANY, 0, UINT32_MAX / 4), nullptr));
        if (!reply)
            return std::nullopt;
        type = reply->type;
        return QByteArray(static_cast<const char*>(xcb_get_property_value(reply.get())), xcb_get_property_value_length(reply.get()));
    }

    // The pieces of a large transfer, each announced by a new value of our property, until an empty one.
    std::optional<QByteArray> readIncrementally()
    {
        QByteArray whole;
        for (;;) {
            const auto changed = waitFor(XCB_PROPERTY_NOTIFY);
            if (!changed)
                return std::nullopt;
            xcb_atom_t type = XCB_ATOM_NONE;
            const std::optional<QByteArray> piece = takeProperty(type);
            if (!piece)
                return std::nullopt;
            if (piece->isEmpty())
                return whole;
            whole += *piece;
        }
    }

    // The next event of this kind for our window (a property only when it gets a new value); other
    // events are let go. Nothing once the time is up or the connection failed.
    std::unique_ptr<xcb_generic_event_t, decltype(&std::free)> waitFor(uint8_t kind)
    {
        for (;;) {
            while (xcb_generic_event_t* event = xcb_poll_for_event(m_connection)) {
                auto kept = owned(event);
                if (wanted(event, kind))
                    return kept;
            }
            if (timeIsUp() || !connected())
                return owned<xcb_generic_event_t>(nullptr);
            pollfd readable{xcb_get_file_descriptor(m_connection), POLLIN, 0};
            ::poll(&readable, 1, int(std::min<qint64>(stopCheckMs, m_deadline.remainingTime())));
        }
    }

    bool wanted(const xcb_generic_event_t* event, uint8_t kind) const
    {
        if ((event->response_type & 0x7f) != kind)
            return false;
        if (kind == XCB_SELECTION_NOTIFY)
            return reinterpret_cast<const xcb_selection_notify_event_t*>(event)->requestor == m_window;
        const auto* property = reinterpret_cast<const xcb_property_notify_event_t*>(event);
        return property->window == m_window && property->atom == m_property && property->state == XCB_PROPERTY_NEW_VALUE;
    }

    xcb_connection_t* m_connection;
    QDeadlineTimer m_deadline;
    const std::atomic<bool>& m_stop;
    xcb_window_t m_window = XCB_WINDOW_NONE;
    xcb_atom_t m_clipboard = XCB_ATOM_NONE, m_property = XCB_ATOM_NONE, m_incr = XCB_ATOM_NONE;
};

// Qt's name for a target: the text targets are "text/plain", Mozilla's URLs are a URI list.
QString formatOf(const QString& target)
{
    static const QStringList text = {QStringLiteral("UTF8_STRING"), QStringLiteral("STRING"), QStringLiteral("TEXT")};
    if (text.contains(target))
        return QStringLiteral("text/plain");
    if (target == QLatin1String("text/x-moz-url"))
        return QStringLiteral("text/uri-list");
    return target;
}

// The order in which text targets are asked for, most faithful first: UTF-8 is what Qt hands back.
int textPreference(const QString& target)
{
    static const QStringList order
        = {QStringLiteral("UTF8_STRING"), QStringLiteral("text/plain"), QStringLiteral("STRING"), QStringLiteral("TEXT")};
    const qsizetype index = order.indexOf(target);
    return index < 0 ? int(order.size()) : int(index);
}

}

std::optional<X11SelectionReader::Entries> X11SelectionReader::read(
    const QByteArray& displayName, std::chrono::milliseconds timeout, const std::atomic<bool>& stop)
{
    Session session(displayName, timeout, stop);
    if (!session.connected()) {
        qCWarning(lcInsert) << "Cannot open a second connection to the X server to read the clipboard";
        return std::nullopt;
    }
    if (!session.hasOwner())
        return Entries{};
    const std::optional<QByteArray> targetList = session.convert(session.atom("TARGETS"));
    if (!targetList) {
        qCWarning(lcInsert) << "The clipboard owner did not list its formats within" << timeout.count() << "ms";
        return std::nullopt;
    }
    // Each format in the owner's order, with the targets that give it, the most faithful first.
    std::vector<std::pair<QString, std::vector<std::pair<QString, xcb_atom_t>>>> formats;
    const auto* atoms = reinterpret_cast<const xcb_atom_t*>(targetList->constData());
    for (qsizetype index = 0; index < targetList->size() / qsizetype(sizeof(xcb_atom_t)); ++index) {
        const QString name = session.atomName(atoms[index]);
        if (name.isEmpty() || X11SelectionReader::isBookkeeping(name))
            continue;
        const QString format = formatOf(name);
        auto known = std::find_if(formats.begin(), formats.end(), [&](const auto& entry) { return entry.first == format; });
        if (known == formats.end())
            known = formats.insert(formats.end(), {format, {}});
        known->second.emplace_back(name, atoms[index]);
    }
    Entries entries;
    for (auto& [format, targets] : formats) {
        std::stable_sort(
            targets.begin(), targets.end(), [](const auto& a, const auto& b) { return textPreference(a.first) < textPreference(b.first); });
        for (const auto& [name, atom] : targets) {
            if (session.timeIsUp()) {
                qCWarning(lcInsert) << "The clipboard owner did not give its" << name << "data within" << timeout.count() << "ms";
                break;
            }
            std::optional<QByteArray> bytes = session.convert(atom);
            if (bytes && name == QLatin1String("STRING"))
                bytes = QString::fromLatin1(*bytes).toUtf8();
            if (bytes && !bytes->isEmpty()) {
                entries.emplace_back(format, *bytes);
                break;
            }
            qCDebug(lcInsert) << "Clipboard format" << name << "gave no data";
        }
    }
    if (entries.empty() && !formats.empty()) {
        qCWarning(lcInsert) << "The clipboard owner gave none of its" << formats.size() << "format(s) within" << timeout.count() << "ms";
        return std::nullopt;
    }
    return entries;
}

bool X11SelectionReader::isBookkeeping(const QString& target)
{
    static const QStringList bookkeeping
        = {QStringLiteral("TARGETS"), QStringLiteral("MULTIPLE"), QStringLiteral("TIMESTAMP"), QStringLiteral("SAVE_TARGETS"),
            QStringLiteral("DELETE"), QStringLiteral("INSERT_SELECTION"), QStringLiteral("INSERT_PROPERTY"), QStringLiteral("PIXMAP"),
            QStringLiteral("BITMAP"), QStringLiteral("DRAWABLE"), QStringLiteral("WINDOW"), QStringLiteral("application/x-qt-image")};
    return bookkeeping.contains(target);
}
