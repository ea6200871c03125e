// Prints "ZONE STATE" for each state-change signal until it is interrupted. Any user may.
//   build: cc -std=c11 -o watch-signal watch-signal.c $(pkg-config --cflags --libs gio-2.0)

#include <gio/gio.h>
#include <stdio.h>
#include <stdlib.h>

static void stateChanged(GDBusConnection* bus, const char* sender, const char* path, const char* interface,
                         const char* signal, GVariant* parameters, gpointer data)
{
    (void)bus, (void)sender, (void)path, (void)interface, (void)signal, (void)data;
    // Declared without arguments, sent with two: look at what came.
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ss)"))) {
        return;
    }
    const char* zone;
    const char* state;
    g_variant_get(parameters, "(&s&s)", &zone, &state);
    printf("%s %s\n", zone, state);
    fflush(stdout);
}

int main(void)
{
    g_autoptr(GError) error = NULL;
    g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, NULL, &error);
    if (bus == NULL) {
        fprintf(stderr, "watch-signal: %s\n", error->message);
        return EXIT_FAILURE;
    }
    // By the well-known name: it goes on when the daemon is started again.
    g_dbus_connection_signal_subscribe(bus, "org.ornix.zoneframework", "org.ornix.zoneframework.interface",
                                       "ZoneStateChangedSignal", "/org/ornix/zoneframework", NULL,
                                       G_DBUS_SIGNAL_FLAGS_NONE, stateChanged, NULL, NULL);
    g_autoptr(GMainLoop) loop = g_main_loop_new(NULL, FALSE);
    g_main_loop_run(loop);
    return EXIT_SUCCESS;
}
