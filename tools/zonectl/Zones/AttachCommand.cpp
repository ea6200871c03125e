#include "Commands.h"
#include "Daemon/BusClient.h"
#include "Output/Json.h"
#include "Zones/Refusal.h"

#include <iostream>

namespace Zonectl {

ExitStatus attachCommand(const Options& options, const Style& /*style*/)
{
    const std::string& zone = options.arguments[0];
    const std::vector<std::string> commandLine(options.arguments.begin() + 1, options.arguments.end());
    const BusClient client(options.patience());
    const bool queued = client.attach(zone, commandLine);
    if (options.json) {
        JsonWriter json;
        json.beginObject().name("name").text(zone).name("request").text("attach");
        json.name("queued").boolean(queued).endObject();
        std::cout << json.finish(JsonWriter::Layout::Indented) << "\n";
    }
    if (!queued) {
        throw Failure(EXIT_FAILED,
                      "zone '" + zone + "': the attach was refused: " + whyRefused(client, zone));
    }
    if (!options.json) {
        std::cout << printable(zone)
                  << ": the attach is queued. The daemon runs no command for it: the zone's thread only\n"
                     "looks whether the zone runs. For a shell or a command use lxc-attach -n "
                  << printable(zone) << "\n";
    }
    return EXIT_OK;
}

} // namespace Zonectl
