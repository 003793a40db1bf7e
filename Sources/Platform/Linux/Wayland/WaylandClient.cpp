#include "WaylandClient.h"

#include "Shared/Logging.h"

#include <QSocketNotifier>
#include <QTimer>

#include "ext-data-control-v1-client-protocol.h"
#include "fake-input-client-protocol.h"
#include "virtual-keyboard-unstable-v1-client-protocol.h"
#include "wlr-data-control-unstable-v1-client-protocol.h"

#include <wayland-client.h>

#include <cerrno>
#include <cstring>

namespace {

// keyboard_key came with version 4; older fake inputs move only the pointer.
constexpr uint32_t fakeInputKeyboardVersion = 4;

}

std::shared_ptr<WaylandClient> WaylandClient::connect(const QString& displayName)
{
    const QByteArray name = displayName.toLocal8Bit();
    wl_display* display = wl_display_connect(name.isEmpty() ? nullptr : name.constData());
    if (!display) {
        qCWarning(lcInsert) << "Cannot connect to the Wayland compositor" << (name.isEmpty() ? qgetenv("WAYLAND_DISPLAY") : name);
        return nullptr;
    }
    std::shared_ptr<WaylandClient> client(new WaylandClient(display));
    // Two round trips: the globals arrive with the first, what binding them sends with the second.
    if (!client->roundtrip())
        return nullptr;
    client->bindDataControl();
    if (!client->roundtrip())
        return nullptr;
    qCInfo(lcInsert) << "Wayland compositor offers: seat" << (client->m_seat != nullptr) << "- data-control"
                     << (client->m_dataControl ? client->m_dataControlProtocol : "none") << "- virtual keyboard"
                     << (client->m_virtualKeyboards != nullptr) << "- fake input" << (client->m_fakeInput != nullptr);
    return client;
}

WaylandClient::WaylandClient(wl_display* display)
    : m_display(display)
{
    static const wl_registry_listener listener = {.global = &WaylandClient::onGlobal, .global_remove = &WaylandClient::onGlobalRemove};
    m_registry = wl_display_get_registry(m_display);
    wl_registry_add_listener(m_registry, &listener, this);
    m_notifier = new QSocketNotifier(wl_display_get_fd(m_display), QSocketNotifier::Read, this);
    QObject::connect(m_notifier, &QSocketNotifier::activated, this, &WaylandClient::dispatchIncoming);
}

WaylandClient::~WaylandClient()
{
    for (const auto& [callback, pending] : m_syncs)
        wl_callback_destroy(callback);
    if (m_fakeInput)
        org_kde_kwin_fake_input_destroy(m_fakeInput);
    if (m_virtualKeyboards)
        zwp_virtual_keyboard_manager_v1_destroy(m_virtualKeyboards);
    if (m_dataControl)
        zwlr_data_control_manager_v1_destroy(m_dataControl);
    if (m_seat)
        wl_seat_destroy(m_seat);
    wl_registry_destroy(m_registry);
    wl_display_disconnect(m_display);
}

void WaylandClient::onGlobal(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t version)
{
    auto* self = static_cast<WaylandClient*>(data);
    if (std::strcmp(interface, wl_seat_interface.name) == 0 && !self->m_seat) {
        self->m_seat = static_cast<wl_seat*>(wl_registry_bind(registry, name, &wl_seat_interface, 1));
    } else if (std::strcmp(interface, ext_data_control_manager_v1_interface.name) == 0) {
        self->m_extDataControlName = name;
    } else if (std::strcmp(interface, zwlr_data_control_manager_v1_interface.name) == 0) {
        self->m_wlrDataControlName = name;
    } else if (std::strcmp(interface, zwp_virtual_keyboard_manager_v1_interface.name) == 0) {
        self->m_virtualKeyboards = static_cast<zwp_virtual_keyboard_manager_v1*>(
            wl_registry_bind(registry, name, &zwp_virtual_keyboard_manager_v1_interface, 1));
    } else if (std::strcmp(interface, org_kde_kwin_fake_input_interface.name) == 0 && version >= fakeInputKeyboardVersion) {
        self->m_fakeInput = static_cast<org_kde_kwin_fake_input*>(
            wl_registry_bind(registry, name, &org_kde_kwin_fake_input_interface, fakeInputKeyboardVersion));
    }
}

void WaylandClient::bindDataControl()
{
    // The standard protocol first: Plasma 6.5 and later offer no other. It is the wlroots one under
    // other names, with the same requests and events, arguments and order, so the wlroots stubs
    // speak it once the manager is bound under its own name: the names never go over the wire, the
    // numbers of the requests and events do. Version 1 of either is enough: the regular clipboard
    // only, never the primary selection.
    const wl_interface* manager = m_extDataControlName ? &ext_data_control_manager_v1_interface
        : m_wlrDataControlName                         ? &zwlr_data_control_manager_v1_interface
                                                       : nullptr;
    if (!manager)
        return;
    m_dataControlProtocol = m_extDataControlName ? "ext" : "wlr";
    const uint32_t name = m_extDataControlName ? m_extDataControlName : m_wlrDataControlName;
    m_dataControl = static_cast<zwlr_data_control_manager_v1*>(wl_registry_bind(m_registry, name, manager, 1));
}

void WaylandClient::onGlobalRemove(void*, wl_registry*, uint32_t)
{
    // A seat or manager going away mid-session is rare; the requests sent to it are then ignored.
}

bool WaylandClient::roundtrip()
{
    if (!isConnected() || wl_display_roundtrip(m_display) < 0) {
        reportLostConnection();
        return false;
    }
    return true;
}

void WaylandClient::sync(QObject* context, std::function<void()> done)
{
    if (!isConnected()) {
        QTimer::singleShot(0, context, std::move(done));
        return;
    }
    static const wl_callback_listener listener = {.done = &WaylandClient::onSyncDone};
    wl_callback* callback = wl_display_sync(m_display);
    wl_callback_add_listener(callback, &listener, this);
    m_syncs.emplace(callback, Sync{context, std::move(done)});
    flush();
}

void WaylandClient::onSyncDone(void* data, wl_callback* callback, uint32_t)
{
    auto* self = static_cast<WaylandClient*>(data);
    const auto found = self->m_syncs.find(callback);
    wl_callback_destroy(callback);
    if (found == self->m_syncs.end())
        return;
    const Sync pending = std::move(found->second);
    self->m_syncs.erase(found);
    if (pending.context)
        pending.done();
}

void WaylandClient::flush()
{
    if (isConnected() && wl_display_flush(m_display) < 0 && errno != EAGAIN)
        reportLostConnection();
}

bool WaylandClient::isConnected() const
{
    return wl_display_get_error(m_display) == 0;
}

void WaylandClient::dispatchIncoming()
{
    // Reads what the socket holds without blocking, then handles it; libwayland's read protocol
    // lets another reader (a roundtrip) interleave safely.
    if (wl_display_prepare_read(m_display) == 0) {
        if (wl_display_read_events(m_display) < 0) {
            reportLostConnection();
            return;
        }
    }
    if (wl_display_dispatch_pending(m_display) < 0)
        reportLostConnection();
    flush();
}

void WaylandClient::reportLostConnection()
{
    if (m_lossReported)
        return;
    m_lossReported = true;
    m_notifier->setEnabled(false);
    // No answer will come: whoever waits for one goes on, and finds the connection gone.
    for (auto& [callback, pending] : std::exchange(m_syncs, {})) {
        wl_callback_destroy(callback);
        if (pending.context)
            QTimer::singleShot(0, pending.context, std::move(pending.done));
    }
    qCWarning(lcInsert) << "Lost the connection to the Wayland compositor (error" << wl_display_get_error(m_display)
                        << "); the clipboard and the paste keys stop working until Voxaria starts again";
}
