// A Wayland server with a seat and the standard data-control protocol and nothing else, for the
// clipboard tests: no compositor Debian 12 ships offers ext_data_control_manager_v1. Usage:
// extdatacontrolserver SOCKET (a name in XDG_RUNTIME_DIR). Keeps one selection: a client's source,
// offered to every data-control device, read through the source's send event, replaced (the old
// source cancelled) and gone with its source. The primary selection is accepted and ignored.

#include "ext-data-control-v1-server-protocol.h"

#include <wayland-server.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

struct Source {
    wl_resource* resource;
    std::vector<std::string> types;
};

struct Offer {
    wl_resource* resource;
    Source* source; // null once the source is gone
};

std::vector<wl_resource*> devices;
std::vector<Offer*> offers;
Source* selection = nullptr;

template <typename T> T* objectOf(wl_resource* resource)
{
    return static_cast<T*>(wl_resource_get_user_data(resource));
}

void destroyResource(wl_client*, wl_resource* resource)
{
    wl_resource_destroy(resource);
}

const struct ext_data_control_offer_v1_interface offerImplementation
    = {.receive =
            [](wl_client*, wl_resource* resource, const char* type, int32_t fd) {
                if (Source* source = objectOf<Offer>(resource)->source)
                    ext_data_control_source_v1_send_send(source->resource, type, fd);
                ::close(fd);
            },
        .destroy = destroyResource};

void destroyOffer(wl_resource* resource)
{
    Offer* offer = objectOf<Offer>(resource);
    std::erase(offers, offer);
    delete offer;
}

// Tells one device what the selection is now: a fresh offer of its types, or none.
void announce(wl_resource* device)
{
    if (!selection) {
        ext_data_control_device_v1_send_selection(device, nullptr);
        return;
    }
    wl_resource* resource = wl_resource_create(wl_resource_get_client(device), &ext_data_control_offer_v1_interface, 1, 0);
    auto* offer = new Offer{resource, selection};
    offers.push_back(offer);
    wl_resource_set_implementation(resource, &offerImplementation, offer, destroyOffer);
    ext_data_control_device_v1_send_data_offer(device, resource);
    for (const std::string& type : selection->types)
        ext_data_control_offer_v1_send_offer(resource, type.c_str());
    ext_data_control_device_v1_send_selection(device, resource);
}

void select(Source* source)
{
    if (source == selection)
        return;
    Source* previous = selection;
    selection = source;
    if (previous)
        ext_data_control_source_v1_send_cancelled(previous->resource);
    for (wl_resource* device : devices)
        announce(device);
}

const struct ext_data_control_source_v1_interface sourceImplementation
    = {.offer = [](wl_client*, wl_resource* resource, const char* type) { objectOf<Source>(resource)->types.emplace_back(type); },
        .destroy = destroyResource};

// A source that goes takes the selection with it, as on every compositor.
void destroySource(wl_resource* resource)
{
    Source* source = objectOf<Source>(resource);
    for (Offer* offer : offers) {
        if (offer->source == source)
            offer->source = nullptr;
    }
    if (selection == source) {
        selection = nullptr;
        for (wl_resource* device : devices)
            announce(device);
    }
    delete source;
}

const struct ext_data_control_device_v1_interface deviceImplementation
    = {.set_selection = [](wl_client*, wl_resource*, wl_resource* source) { select(source ? objectOf<Source>(source) : nullptr); },
        .destroy = destroyResource,
        .set_primary_selection = [](wl_client*, wl_resource*, wl_resource*) {}};

void managerCreateSource(wl_client* client, wl_resource* manager, uint32_t id)
{
    wl_resource* resource = wl_resource_create(client, &ext_data_control_source_v1_interface, wl_resource_get_version(manager), id);
    wl_resource_set_implementation(resource, &sourceImplementation, new Source{resource, {}}, destroySource);
}

void managerGetDevice(wl_client* client, wl_resource* manager, uint32_t id, wl_resource*)
{
    wl_resource* resource = wl_resource_create(client, &ext_data_control_device_v1_interface, wl_resource_get_version(manager), id);
    wl_resource_set_implementation(resource, &deviceImplementation, nullptr, [](wl_resource* device) { std::erase(devices, device); });
    devices.push_back(resource);
    announce(resource);
}

const struct ext_data_control_manager_v1_interface managerImplementation
    = {.create_data_source = managerCreateSource, .get_data_device = managerGetDevice, .destroy = destroyResource};

void bindManager(wl_client* client, void*, uint32_t version, uint32_t id)
{
    wl_resource* resource = wl_resource_create(client, &ext_data_control_manager_v1_interface, int(version), id);
    wl_resource_set_implementation(resource, &managerImplementation, nullptr, nullptr);
}

// A seat with no pointer, keyboard or touch: data-control only needs one to name.
void seatGetNothing(wl_client* client, wl_resource*, uint32_t)
{
    wl_client_post_implementation_error(client, "this test server's seat has no input devices");
}

const struct wl_seat_interface seatImplementation
    = {.get_pointer = seatGetNothing, .get_keyboard = seatGetNothing, .get_touch = seatGetNothing, .release = destroyResource};

void bindSeat(wl_client* client, void*, uint32_t version, uint32_t id)
{
    wl_resource* resource = wl_resource_create(client, &wl_seat_interface, int(version), id);
    wl_resource_set_implementation(resource, &seatImplementation, nullptr, nullptr);
    wl_seat_send_capabilities(resource, 0);
}

}

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: extdatacontrolserver SOCKET\n");
        return 2;
    }
    wl_display* display = wl_display_create();
    if (wl_display_add_socket(display, argv[1]) != 0) {
        std::fprintf(stderr, "cannot listen on %s\n", argv[1]);
        return 1;
    }
    wl_global_create(display, &wl_seat_interface, 1, nullptr, bindSeat);
    wl_global_create(display, &ext_data_control_manager_v1_interface, 1, nullptr, bindManager);
    wl_display_run(display);
    return 0;
}
