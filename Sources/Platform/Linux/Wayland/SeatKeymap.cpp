#include "SeatKeymap.h"

#include "Shared/Logging.h"
#include "WaylandClient.h"

#include <wayland-client.h>
#include <xkbcommon/xkbcommon.h>

#include <sys/mman.h>
#include <unistd.h>

namespace {

// The kernel's key codes are the XKB key codes less 8.
constexpr quint32 evdevOffset = 8;

// Of the keyboard's events only the layout matters here: keys and focus are for its windows.
void ignoreEnter(void*, wl_keyboard*, uint32_t, wl_surface*, wl_array*)
{
}
void ignoreLeave(void*, wl_keyboard*, uint32_t, wl_surface*)
{
}
void ignoreKey(void*, wl_keyboard*, uint32_t, uint32_t, uint32_t, uint32_t)
{
}
void ignoreModifiers(void*, wl_keyboard*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t)
{
}
void ignoreRepeatInfo(void*, wl_keyboard*, int32_t, int32_t)
{
}

}

SeatKeymap::SeatKeymap(std::shared_ptr<WaylandClient> client)
    : m_client(std::move(client))
    , m_context(xkb_context_new(XKB_CONTEXT_NO_FLAGS))
{
    if (!m_client || !m_client->seat() || !m_context)
        return;
    static const wl_keyboard_listener listener{.keymap = &SeatKeymap::onKeymap,
        .enter = &ignoreEnter,
        .leave = &ignoreLeave,
        .key = &ignoreKey,
        .modifiers = &ignoreModifiers,
        .repeat_info = &ignoreRepeatInfo};
    m_keyboard = wl_seat_get_keyboard(m_client->seat());
    wl_keyboard_add_listener(m_keyboard, &listener, this);
    m_client->flush();
}

SeatKeymap::~SeatKeymap()
{
    if (m_keyboard)
        wl_keyboard_destroy(m_keyboard);
    if (m_keymap)
        xkb_keymap_unref(m_keymap);
    if (m_context)
        xkb_context_unref(m_context);
}

void SeatKeymap::onKeymap(void* data, wl_keyboard*, uint32_t format, int32_t fd, uint32_t size)
{
    auto* self = static_cast<SeatKeymap*>(data);
    void* text = format == WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1 ? mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0) : MAP_FAILED;
    close(fd);
    if (text == MAP_FAILED) {
        qCWarning(lcInsert) << "The compositor's keyboard layout could not be read; the paste keys keep their QWERTY positions";
        return;
    }
    xkb_keymap* keymap = xkb_keymap_new_from_buffer(self->m_context, static_cast<const char*>(text),
        qstrnlen(static_cast<const char*>(text), size), XKB_KEYMAP_FORMAT_TEXT_V1, XKB_KEYMAP_COMPILE_NO_FLAGS);
    munmap(text, size);
    if (!keymap)
        return;
    if (self->m_keymap)
        xkb_keymap_unref(self->m_keymap);
    self->m_keymap = keymap;
}

std::optional<quint32> SeatKeymap::kernelKeyFor(quint32 keysym) const
{
    const quint32 key = m_keymap ? kernelKeyFor(m_keymap, keysym) : 0;
    return key ? std::optional(key) : std::nullopt;
}

quint32 SeatKeymap::kernelKeyFor(xkb_keymap* keymap, quint32 keysym)
{
    for (xkb_keycode_t code = xkb_keymap_min_keycode(keymap); code <= xkb_keymap_max_keycode(keymap); ++code) {
        const xkb_keysym_t* symbols = nullptr;
        const int count = xkb_keymap_key_get_syms_by_level(keymap, code, 0, 0, &symbols);
        if (count > 0 && symbols[0] == keysym)
            return code - evdevOffset;
    }
    return 0;
}
