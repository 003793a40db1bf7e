#pragma once

#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>
#include <map>
#include <memory>

struct wl_callback;
struct wl_display;
struct wl_registry;
struct wl_seat;
struct zwlr_data_control_manager_v1;
struct zwp_virtual_keyboard_manager_v1;
struct org_kde_kwin_fake_input;

class QSocketNotifier;

// This program's own connection to the Wayland compositor, for the few things that must speak
// Wayland even while Voxaria's windows go through XWayland: the clipboard (data-control, ext or wlr) and
// the paste keys (virtual keyboard on wlroots, fake input on KWin). Events are handled on the main thread as they arrive, so the
// clipboard state is current whenever a caller looks. Main thread only.
class WaylandClient final : public QObject {
public:
    // Connects to `displayName` (a socket name or an absolute path; empty: WAYLAND_DISPLAY) and
    // learns what the compositor offers; nothing when no compositor answers.
    static std::shared_ptr<WaylandClient> connect(const QString& displayName = {});

    ~WaylandClient() override;

    wl_display* display() const { return m_display; }
    // The first seat: the one keyboard and clipboard of an ordinary desktop.
    wl_seat* seat() const { return m_seat; }
    // The data-control manager: ext_data_control_manager_v1 where the compositor has it, else the
    // wlroots one, both spoken through the wlroots stubs (see bindDataControl()).
    zwlr_data_control_manager_v1* dataControl() const { return m_dataControl; }
    // "ext" or "wlr", whichever dataControl() speaks.
    const char* dataControlProtocol() const { return m_dataControlProtocol; }
    zwp_virtual_keyboard_manager_v1* virtualKeyboards() const { return m_virtualKeyboards; }
    // KWin's fake input (version 4, the first with keyboard keys); KWin offers it only to programs
    // an installed desktop file allows.
    org_kde_kwin_fake_input* fakeInput() const { return m_fakeInput; }

    // Sends what is queued and waits until the compositor has answered it, handling the events that
    // came meanwhile. Answers whether the connection still works. For start-up only.
    bool roundtrip();
    // Sends what is queued; `done` runs once the compositor has answered it, every event it sent
    // before handled, unless `context` is gone by then. A lost connection answers at once.
    void sync(QObject* context, std::function<void()> done);
    // Sends what is queued without waiting.
    void flush();
    // Handles the events already read or waiting in the socket, without waiting for more.
    void readArrived() { dispatchIncoming(); }
    // False once the compositor went away or ended the connection for an error of ours.
    bool isConnected() const;

private:
    explicit WaylandClient(wl_display* display);
    static void onGlobal(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t version);
    static void onGlobalRemove(void* data, wl_registry* registry, uint32_t name);
    // Binds the data-control manager announced with the globals, the standard one first.
    void bindDataControl();
    void dispatchIncoming();
    void reportLostConnection();
    static void onSyncDone(void* data, wl_callback* callback, uint32_t);

    struct Sync {
        QPointer<QObject> context;
        std::function<void()> done;
    };

    wl_display* m_display = nullptr;
    wl_registry* m_registry = nullptr;
    wl_seat* m_seat = nullptr;
    zwlr_data_control_manager_v1* m_dataControl = nullptr;
    const char* m_dataControlProtocol = "";
    // The registry names of the data-control managers announced, 0 for none.
    uint32_t m_extDataControlName = 0, m_wlrDataControlName = 0;
    zwp_virtual_keyboard_manager_v1* m_virtualKeyboards = nullptr;
    org_kde_kwin_fake_input* m_fakeInput = nullptr;
    QSocketNotifier* m_notifier = nullptr;
    bool m_lossReported = false;
    std::map<wl_callback*, Sync> m_syncs;
};
