/* Presses a chord into whatever window KWin gives the keyboard focus, through KWin's
 * fake-input protocol, as a hardware keyboard would: the modifiers go down in order, the key
 * is pressed and released, the modifiers come up in reverse order.
 *
 *   e2e_kwin_fake_keys KEYCODE...   (Linux input key codes, e.g. 29 56 43 for Ctrl+Alt+\)
 *   e2e_kwin_fake_keys --click X Y  (a left click at a point of the output)
 *
 * KWin asks nothing of the client when KWIN_WAYLAND_NO_PERMISSION_CHECKS is set. */
#include "fake-input-client-protocol.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wayland-client.h>

static struct org_kde_kwin_fake_input* fake_input;

static void global(void* data, struct wl_registry* registry, uint32_t name, const char* interface, uint32_t version)
{
    (void)data;
    if (strcmp(interface, org_kde_kwin_fake_input_interface.name) == 0 && version >= 4)
        fake_input = wl_registry_bind(registry, name, &org_kde_kwin_fake_input_interface, 4);
}

static void global_remove(void* data, struct wl_registry* registry, uint32_t name)
{
    (void)data;
    (void)registry;
    (void)name;
}

static const struct wl_registry_listener listener = {global, global_remove};

int main(int argc, char** argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s KEYCODE...\n", argv[0]);
        return 2;
    }
    struct wl_display* display = wl_display_connect(NULL);
    if (!display) {
        fprintf(stderr, "no Wayland display\n");
        return 1;
    }
    struct wl_registry* registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &listener, NULL);
    wl_display_roundtrip(display);
    if (!fake_input) {
        fprintf(stderr, "the compositor offers no fake input (version 4)\n");
        return 1;
    }
    org_kde_kwin_fake_input_authenticate(fake_input, "ravlet tests", "presses keys for a test");
    if (strcmp(argv[1], "--click") == 0 && argc == 4) {
        const uint32_t left_button = 0x110; /* BTN_LEFT */
        org_kde_kwin_fake_input_pointer_motion_absolute(fake_input, wl_fixed_from_int(atoi(argv[2])),
                                                        wl_fixed_from_int(atoi(argv[3])));
        wl_display_roundtrip(display);
        org_kde_kwin_fake_input_button(fake_input, left_button, WL_POINTER_BUTTON_STATE_PRESSED);
        org_kde_kwin_fake_input_button(fake_input, left_button, WL_POINTER_BUTTON_STATE_RELEASED);
        wl_display_roundtrip(display);
        wl_display_disconnect(display);
        return 0;
    }
    const int count = argc - 1;
    for (int i = 0; i < count; ++i)
        org_kde_kwin_fake_input_keyboard_key(fake_input, (uint32_t)atoi(argv[1 + i]), WL_KEYBOARD_KEY_STATE_PRESSED);
    wl_display_roundtrip(display);
    for (int i = count - 1; i >= 0; --i)
        org_kde_kwin_fake_input_keyboard_key(fake_input, (uint32_t)atoi(argv[1 + i]), WL_KEYBOARD_KEY_STATE_RELEASED);
    wl_display_roundtrip(display);
    org_kde_kwin_fake_input_destroy(fake_input);
    wl_registry_destroy(registry);
    wl_display_disconnect(display);
    return 0;
}
