// Calls a method that takes a zone's name, and prints the reply.
//   build: cc -std=c11 -o zone-call zone-call.c $(pkg-config --cflags --libs gio-2.0)
//   usage: zone-call METHOD ZONE         zone-call ZoneGetState red         prints (3,)

#include <gio/gio.h>
#include <stdio.h>
#include <stdlib.h>

#define TIMEOUT_MS 5000 // the answer of ZoneAttachWait never comes

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: zone-call METHOD ZONE\n");
        return 2;
    }
    g_autoptr(GError) error = NULL;
    g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, NULL, &error);
    if (bus == NULL) {
        fprintf(stderr, "zone-call: %s\n", error->message);
        return EXIT_FAILURE;
    }
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        bus, "org.ornix.zoneframework", "/org/ornix/zoneframework", "org.ornix.zoneframework.interface",
        argv[1], g_variant_new("(s)", argv[2]), NULL, G_DBUS_CALL_FLAGS_NONE, TIMEOUT_MS, NULL, &error);
    if (reply == NULL) {
        fprintf(stderr, "zone-call: %s\n", error->message);
        return EXIT_FAILURE;
    }
    g_autofree char* text = g_variant_print(reply, FALSE);
    printf("%s\n", text);
    return EXIT_SUCCESS;
}
