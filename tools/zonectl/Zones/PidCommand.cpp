#include "Commands.h"
#include "Daemon/InitPidSocket.h"
#include "Device/Containers.h"
#include "Device/Machine.h"
#include "Output/Json.h"
#include "Zones/Refusal.h"

#include <algorithm>
#include <iostream>

namespace Zonectl {

namespace {

/// The server answers at once, unless somebody holds it up.
constexpr std::chrono::seconds PATIENCE(5);

/// The socket has one answer for all that is no isolation zone of the daemon's.
[[nodiscard]] std::string whyNoPid(const std::string& zone)
{
    const Machine machine{""};
    const std::string lxcPath = configuredLxcPath(machine);
    const std::vector<std::string> known = configuredNames(machine, lxcPath);
    const bool readable = !known.empty(); // for those who are not root it may not be
    if (readable && std::find(known.begin(), known.end(), zone) == known.end()) {
        return "no container is called '" + zone + "' (there are: " + nameList(known) + ")";
    }
    if (readContainer(machine, lxcPath, zone).kind == ZUP::ZONE_TYPE_ISOLATION) {
        return "zone '" + zone + "': " + NOT_TAKEN;
    }
    // Others than root may not see what it is instead.
    return "'" + zone +
           "' is no isolation zone of the daemon's: the socket answers for those only "
           "('zonectl status' tells of all)";
}

} // namespace

ExitStatus pidCommand(const Options& options, const Style& /*style*/)
{
    const std::string& zone = options.arguments[0];
    if (zone.size() > LONGEST_INIT_PID_NAME) {
        throw Failure(EXIT_USAGE, "the init-pid socket takes names of up to " +
                                      std::to_string(LONGEST_INIT_PID_NAME) + " bytes");
    }
    const long pid = askInitPid(zone, options.timeout.value_or(PATIENCE));
    if (pid == 0) {
        throw Failure(EXIT_FAILED, whyNoPid(zone));
    }
    if (pid < 0) {
        throw Failure(EXIT_FAILED, "zone '" + zone + "' has not run since the zone manager was started");
    }
    if (options.json) {
        JsonWriter json;
        json.beginObject().name("name").text(zone).name("init_pid").number(pid).endObject();
        std::cout << json.finish(JsonWriter::Layout::Indented) << "\n";
    } else {
        std::cout << pid << "\n";
    }
    return EXIT_OK;
}

} // namespace Zonectl
