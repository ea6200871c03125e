#include "BusClient.h"
#include "Commands.h"
#include "Json.h"
#include "Names.h"

#include <csignal>
#include <glib-unix.h>
#include <iostream>

namespace Zonectl {

namespace {

/// The local time with microseconds and zone, as ISO 8601 writes it.
[[nodiscard]] std::string timeStamp()
{
    using DateTimePtr = std::unique_ptr<GDateTime, ZoneCore::FreeWith<g_date_time_unref>>;
    using StringPtr = std::unique_ptr<char, ZoneCore::FreeWith<g_free>>;
    const DateTimePtr now(g_date_time_new_now_local());
    const StringPtr text(g_date_time_format(now.get(), "%Y-%m-%dT%H:%M:%S.%f%:z"));
    return text.get();
}

/// Prints each state change until it is told to end.
class Watcher
{
public:
    Watcher(const Options& commandOptions, const Style& outputStyle)
        : options(commandOptions), style(outputStyle), client(options.patience()),
          loop(g_main_loop_new(nullptr, FALSE)),
          subscription(client.onStateChange(
              [this](const std::string& zone, const std::string& state) { print(zone, state); }))
    {}

    [[nodiscard]] ExitStatus run()
    {
        if (!client.daemonPresent()) {
            throw Failure(EXIT_UNREACHABLE, "the zone manager is not running (nobody owns " +
                                                std::string(Names::BUS_NAME) + ")");
        }
        g_signal_connect(client.connection(), "closed", G_CALLBACK(&Watcher::busClosedCallback), this);
        g_unix_signal_add(SIGINT, &Watcher::endCallback, this);
        g_unix_signal_add(SIGTERM, &Watcher::endCallback, this);
        const guint nameWatch = g_bus_watch_name_on_connection(
            client.connection(), Names::BUS_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
            &Watcher::daemonAppearedCallback, &Watcher::daemonVanishedCallback, this, nullptr);
        if (options.timeout) {
            g_timeout_add_seconds(static_cast<guint>(options.timeout->count()), &Watcher::endCallback, this);
        }
        g_main_loop_run(loop.get());
        g_bus_unwatch_name(nameWatch);
        if (busLost) {
            throw Failure(EXIT_UNREACHABLE, "the connection to the bus was lost");
        }
        if (outputLost) {
            throw Failure(EXIT_FAILED, "the output could not be written");
        }
        return EXIT_OK;
    }

private:
    static gboolean endCallback(gpointer data)
    {
        g_main_loop_quit(static_cast<Watcher*>(data)->loop.get());
        return G_SOURCE_CONTINUE; // the process ends; until then a second Ctrl-C changes nothing
    }

    static void busClosedCallback(GDBusConnection* /*bus*/, gboolean /*remote*/, GError* /*error*/,
                                  gpointer data)
    {
        static_cast<Watcher*>(data)->busLost = true;
        static_cast<void>(endCallback(data));
    }

    static void daemonAppearedCallback(GDBusConnection* /*bus*/, const gchar* /*name*/,
                                       const gchar* /*owner*/, gpointer data)
    {
        auto* self = static_cast<Watcher*>(data);
        if (self->daemonLeft) {
            std::cerr << "zonectl: the zone manager is back" << std::endl;
        }
        self->daemonLeft = false;
    }

    static void daemonVanishedCallback(GDBusConnection* bus, const gchar* /*name*/, gpointer data)
    {
        auto* self = static_cast<Watcher*>(data);
        if (bus == nullptr || g_dbus_connection_is_closed(bus) != FALSE) {
            return; // the end of the connection has its own message
        }
        self->daemonLeft = true;
        std::cerr << "zonectl: the zone manager has left the bus; waiting for it" << std::endl;
    }

    /// One line at once: a reader behind a pipe sees each change when it happens.
    void print(const std::string& zone, const std::string& state)
    {
        if (!options.arguments.empty() && options.arguments[0] != zone) {
            return;
        }
        if (options.json) {
            JsonWriter json;
            json.beginObject().name("time").text(timeStamp()).name("name").text(zone);
            json.name("state").text(state).endObject();
            std::cout << json.finish(JsonWriter::Layout::OneLine) << std::endl;
        } else {
            std::cout << style.paint(Tone::Muted, timeStamp()) << "  " << printable(zone) << "  "
                      << style.paint(stateTone(state), printable(state)) << std::endl;
        }
        if (!std::cout) {
            outputLost = true;
            g_main_loop_quit(loop.get());
        }
    }

    const Options& options;
    const Style& style;
    BusClient client;
    ZoneCore::GMainLoopPtr loop;
    std::unique_ptr<StateSubscription> subscription;
    bool busLost = false;
    bool outputLost = false;
    bool daemonLeft = false;
};

} // namespace

ExitStatus watchCommand(const Options& options, const Style& style)
{
    return Watcher(options, style).run();
}

} // namespace Zonectl
