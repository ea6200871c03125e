#include "BusClient.h"
#include "Commands.h"
#include "Containers.h"
#include "Json.h"
#include "Machine.h"
#include "Table.h"
#include "ZoneWords.h"

#include <iostream>

namespace Zonectl {

namespace {

/// What the daemon answers in a number's place for a protection zone and for a zone it does not have.
constexpr int REFUSED = -1;

/// One zone as the daemon and the configuration on disk show it.
struct ZoneView
{
    std::string name;
    ZUP::ZoneType kind = ZUP::ZONE_TYPE_NONE; ///< from the configuration; none when that is not readable
    int state = REFUSED;
    int initPid = REFUSED;

    [[nodiscard]] bool refused() const { return state == REFUSED; }
};

[[noreturn]] void throwRefused(const std::string& zone)
{
    throw Failure(EXIT_FAILED,
                  "zone '" + zone + "' is refused: it is a protection zone, or the daemon does not have it");
}

[[nodiscard]] ZoneView viewOf(const BusClient& client, const Machine& machine, const std::string& lxcPath,
                              const std::string& name)
{
    ZoneView view;
    view.name = name;
    view.kind = readContainer(machine, lxcPath, name).kind;
    view.state = client.zoneState(name);
    if (!view.refused()) {
        view.initPid = client.initPid(name);
    }
    return view;
}

/// Why the daemon refuses a listed zone, as far as its configuration tells.
[[nodiscard]] std::string refusalWord(const ZoneView& view)
{
    switch (view.kind) {
    case ZUP::ZONE_TYPE_PROTECTION:
        return "protected";
    case ZUP::ZONE_TYPE_NONE:
        return "protected/refused";
    case ZUP::ZONE_TYPE_ISOLATION:
    case ZUP::ZONE_TYPE_HYBRID:
        break;
    }
    return "refused";
}

void printJson(const std::vector<ZoneView>& views)
{
    JsonWriter json;
    json.beginArray();
    for (const ZoneView& view : views) {
        json.beginObject().name("name").text(view.name).name("kind");
        view.kind == ZUP::ZONE_TYPE_NONE ? json.null() : json.text(kindWord(view.kind));
        json.name("access").text(view.refused() ? refusalWord(view) : "granted").name("state");
        view.refused() ? json.null() : json.text(stateWord(view.state));
        json.name("init_pid");
        view.initPid < 1 ? json.null() : json.number(view.initPid);
        json.endObject();
    }
    std::cout << json.endArray().finish(JsonWriter::Layout::Indented) << "\n";
}

void printTable(const std::vector<ZoneView>& views, const Style& style)
{
    Table table({"NAME", "KIND", "STATE", "INIT PID"});
    for (const ZoneView& view : views) {
        const std::string kind(kindWord(view.kind));
        const Cell state = view.refused() ? Cell{refusalWord(view), Tone::Muted}
                                          : Cell{stateWord(view.state), stateTone(stateWord(view.state))};
        table.add({{view.name},
                   {kind.empty() ? "-" : kind},
                   state,
                   {view.initPid < 1 ? "-" : std::to_string(view.initPid)}});
    }
    std::cout << table.render(style);
}

/// Prints one fact about one zone: bare as text, with its name as JSON.
void printFact(const Options& options, const char* member, const std::string& text, const Style& style,
               Tone tone)
{
    if (options.json) {
        JsonWriter json;
        json.beginObject().name("name").text(options.arguments[0]).name(member).text(text).endObject();
        std::cout << json.finish(JsonWriter::Layout::Indented) << "\n";
        return;
    }
    std::cout << style.paint(tone, printable(text)) << "\n";
}

} // namespace

ExitStatus listCommand(const Options& options, const Style& style)
{
    const BusClient client(options.patience());
    const Machine machine{""};
    const std::string lxcPath = configuredLxcPath(machine);
    std::vector<ZoneView> views;
    for (const std::string& name : client.zoneNames()) {
        views.push_back(viewOf(client, machine, lxcPath, name));
    }
    if (options.json) {
        printJson(views);
    } else {
        printTable(views, style);
    }
    return EXIT_OK;
}

ExitStatus stateCommand(const Options& options, const Style& style)
{
    const std::string& zone = options.arguments[0];
    const int state = BusClient(options.patience()).zoneState(zone);
    if (state == REFUSED) {
        throwRefused(zone);
    }
    printFact(options, "state", stateWord(state), style, stateTone(stateWord(state)));
    return EXIT_OK;
}

ExitStatus initPidCommand(const Options& options, const Style& /*style*/)
{
    const std::string& zone = options.arguments[0];
    const BusClient client(options.patience());
    const int pid = client.initPid(zone);
    if (pid < 1) {
        // A zone that does not run and one that is refused answer alike; the state tells them apart.
        if (client.zoneState(zone) == REFUSED) {
            throwRefused(zone);
        }
        throw Failure(EXIT_FAILED, "zone '" + zone + "' has no init process");
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

ExitStatus versionCommand(const Options& options, const Style& style)
{
    const std::string& zone = options.arguments[0];
    const std::string version = BusClient(options.patience()).version(zone);
    if (version == "none") {
        throwRefused(zone);
    }
    printFact(options, "version", version, style, Tone::Plain);
    return EXIT_OK;
}

} // namespace Zonectl
