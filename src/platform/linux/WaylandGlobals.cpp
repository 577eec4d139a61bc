#include "platform/linux/WaylandGlobals.h"

#include <cstring>

#include <wayland-client.h>

namespace {

void announceGlobal(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t version)
{
    static_cast<void>(registry);
    static_cast<void>(name);
    static_cast<void>(version);
    auto* globals = static_cast<WaylandGlobals*>(data);
    if (std::strcmp(interface, "zwlr_data_control_manager_v1") == 0
        || std::strcmp(interface, "ext_data_control_manager_v1") == 0)
        globals->dataControl = true;
    else if (std::strcmp(interface, "zwp_virtual_keyboard_manager_v1") == 0)
        globals->virtualKeyboard = true;
}

void removeGlobal(void* data, wl_registry* registry, uint32_t name)
{
    static_cast<void>(data);
    static_cast<void>(registry);
    static_cast<void>(name);
}

const wl_registry_listener registryListener = { announceGlobal, removeGlobal };

} // namespace

std::optional<WaylandGlobals> probeWaylandGlobals()
{
    wl_display* display = wl_display_connect(nullptr);
    if (!display)
        return std::nullopt;
    WaylandGlobals globals;
    wl_registry* registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &registryListener, &globals);
    // One round trip: every global is announced before the compositor answers it.
    const bool answered = wl_display_roundtrip(display) >= 0;
    wl_registry_destroy(registry);
    wl_display_disconnect(display);
    if (!answered)
        return std::nullopt;
    return globals;
}
