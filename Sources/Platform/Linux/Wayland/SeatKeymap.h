#pragma once

#include <QtGlobal>

#include <memory>
#include <optional>

struct wl_keyboard;
struct xkb_context;
struct xkb_keymap;

class WaylandClient;

// The keyboard layout the compositor types with, as it hands it to every client of the seat's
// keyboard: which key yields which symbol. Synthetic keys that go through that layout (KWin's fake
// input) look their keys up here, so a Dvorak user's Control-V is Control and the key that types
// "v" there, not the one at QWERTY's V. The layout arrives a moment after start-up and again
// whenever the user switches it. Main thread only.
class SeatKeymap final {
public:
    explicit SeatKeymap(std::shared_ptr<WaylandClient> client);
    ~SeatKeymap();
    SeatKeymap(const SeatKeymap&) = delete;
    SeatKeymap& operator=(const SeatKeymap&) = delete;

    // The kernel key code whose first level types `keysym` in the first layout, or none before the
    // compositor has sent a layout, or when the layout has no such key.
    std::optional<quint32> kernelKeyFor(quint32 keysym) const;

    // The same question to any compiled keymap (0: no key).
    static quint32 kernelKeyFor(xkb_keymap* keymap, quint32 keysym);

private:
    static void onKeymap(void* data, wl_keyboard* keyboard, uint32_t format, int32_t fd, uint32_t size);

    std::shared_ptr<WaylandClient> m_client;
    wl_keyboard* m_keyboard = nullptr;
    xkb_context* m_context = nullptr;
    xkb_keymap* m_keymap = nullptr;
};
