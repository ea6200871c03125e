#include "Commands.h"
#include "Daemon/BusClient.h"
#include "Output/Json.h"

#include <iostream>
#include <optional>

namespace Zonectl {

namespace {

constexpr std::chrono::seconds PATIENCE(5);
constexpr const char* REFUSED = "none";

/// The daemon's version through the first of the zones about which it speaks.
[[nodiscard]] std::optional<std::string> askThrough(const BusClient& client,
                                                    const std::vector<std::string>& zones)
{
    for (const std::string& zone : zones) {
        if (std::string version = client.version(zone); version != REFUSED) {
            return version;
        }
    }
    return std::nullopt;
}

void print(const Options& options, const std::optional<std::string>& daemon)
{
    if (options.json) {
        JsonWriter json;
        json.beginObject()
            .name("zonectl")
            .text(ZONECTL_VERSION)
            .name("daemon")
            .textOrNull(daemon)
            .endObject();
        std::cout << json.finish(JsonWriter::Layout::Indented) << "\n";
        return;
    }
    std::cout << "zonectl " ZONECTL_VERSION "\n";
    if (daemon) {
        std::cout << "daemon " << printable(*daemon) << "\n";
    }
}

} // namespace

ExitStatus versionCommand(const Options& options, const Style& /*style*/)
{
    std::optional<std::string> daemon;
    try {
        const BusClient client(options.timeout.value_or(PATIENCE));
        daemon = askThrough(client, options.arguments.empty() ? client.zoneNames() : options.arguments);
    } catch (const Failure&) {
        print(options, std::nullopt);
        throw;
    }
    print(options, daemon);
    if (!daemon) {
        throw Failure(EXIT_FAILED, options.arguments.empty()
                                       ? "there is no zone through which the daemon tells its version"
                                       : "zone '" + options.arguments[0] + "' is refused: it is a " +
                                             "protection zone, or the daemon does not have it");
    }
    return EXIT_OK;
}

} // namespace Zonectl
