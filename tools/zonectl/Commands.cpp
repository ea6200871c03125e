#include "Commands.h"

#include <algorithm>
#include <array>
#include <iostream>

namespace Zonectl {

namespace {

constexpr std::array COMMANDS = {
    Command{"list", "", "all zones: kind, state, init, automatic start", 0, 0, Arguments::None, TAKES_NOTHING,
            listCommand},
    Command{"status", "[NAME...]", "the same of some zones", 0, ANY_NUMBER, Arguments::Zones, TAKES_NOTHING,
            listCommand},
    Command{"pid", "NAME", "the init of an isolation zone, by its socket", 1, 1, Arguments::Zones,
            TAKES_NOTHING, pidCommand},
    Command{"start", "[--wait] NAME...", "ask for the start of zones", 1, ANY_NUMBER, Arguments::Zones,
            TAKES_WAIT, startCommand},
    Command{"stop", "[--wait] NAME...", "ask for the stop of zones", 1, ANY_NUMBER, Arguments::Zones,
            TAKES_WAIT, stopCommand},
    Command{"unfreeze", "[--wait] NAME...", "ask for frozen zones to go on", 1, ANY_NUMBER, Arguments::Zones,
            TAKES_WAIT, unfreezeCommand},
    Command{"wait", "NAME STATE", "wait until a zone is in a state", 2, 2, Arguments::ZoneAndState,
            TAKES_NOTHING, waitCommand},
    Command{"attach", "NAME -- COMMAND...", "queue an attach; it runs nothing", 2, ANY_NUMBER,
            Arguments::CommandLine, TAKES_NOTHING, attachCommand},
    Command{"version", "[NAME]", "the versions of zonectl and the daemon", 0, 1, Arguments::Zones,
            TAKES_NOTHING, versionCommand},
    Command{"watch", "[NAME...]", "the states of zones, then every change", 0, ANY_NUMBER, Arguments::Zones,
            TAKES_RAW | TAKES_RECORD, watchCommand},
    Command{"top", "[NAME...]", "a live table of states, processor and memory", 0, ANY_NUMBER,
            Arguments::Zones, TAKES_NOTHING, topCommand},
    Command{"replay", "FILE", "show what watch --record wrote", 1, 1, Arguments::Files, TAKES_NOTHING,
            replayCommand},
    Command{"diff", "FILE FILE", "compare two recordings", 2, 2, Arguments::Files, TAKES_NOTHING,
            diffCommand},
    Command{"doctor", "[--fix] [--root DIR]", "what the machine lacks for the daemon to work", 0, 0,
            Arguments::None, TAKES_ROOT | TAKES_FIX | TAKES_YES, doctorCommand},
    Command{"labels", "[--tmpfiles]", "the Smack labels that are and that should be", 0, 0, Arguments::None,
            TAKES_ROOT | TAKES_TMPFILES, labelsCommand},
    Command{"explain", "[--file FILE] [NAME]", "what the daemon's log tells of a zone, or of all", 0, 1,
            Arguments::Zones, TAKES_FILE, explainCommand},
    Command{"leftovers", "[--clean [--yes]]", "what earlier runs left behind", 0, 0, Arguments::None,
            TAKES_ROOT | TAKES_CLEAN | TAKES_YES, leftoversCommand},
};

constexpr std::array OPTIONS = {
    OptionHelp{"--json", "", "machine-readable output", TAKES_NOTHING, nullptr},
    OptionHelp{"--timeout", " SECONDS",
               "how long a call, a wait, watch, top, explain or a question\n"
               "may last (mostly 30; watch and top have no end)",
               TAKES_NOTHING, nullptr},
    OptionHelp{"--color", "=WHEN", "auto, always or never", TAKES_NOTHING, nullptr},
    OptionHelp{"--wait", "[=SECONDS]", "wait until it has happened", TAKES_WAIT,
               [](const Options& options) { return options.wait; }},
    OptionHelp{"--fix", "", "apply the remedies, asking for each", TAKES_FIX,
               [](const Options& options) { return options.fix; }},
    OptionHelp{"--tmpfiles", "", "lines of tmpfiles.d that set them", TAKES_TMPFILES,
               [](const Options& options) { return options.tmpfiles; }},
    OptionHelp{"--clean", "", "remove what was found, asking for each", TAKES_CLEAN,
               [](const Options& options) { return options.clean; }},
    OptionHelp{"--yes", "", "do not ask", TAKES_YES, [](const Options& options) { return options.yes; }},
    OptionHelp{"--root", " DIR", "look at the system below DIR", TAKES_ROOT,
               [](const Options& options) { return !options.root.empty(); }},
    OptionHelp{"--file", " FILE", "read the log in FILE, - for standard input", TAKES_FILE,
               [](const Options& options) { return !options.file.empty(); }},
    OptionHelp{"--raw", "", "by the subscribers' socket, without a bus", TAKES_RAW,
               [](const Options& options) { return options.raw; }},
    OptionHelp{"--record", " FILE", "write what is seen to a new FILE", TAKES_RECORD,
               [](const Options& options) { return !options.record.empty(); }},
    OptionHelp{"--version", "", "the version of this program", TAKES_NOTHING, nullptr},
    OptionHelp{"--help", "", "this text, or that of a command (-h)", TAKES_NOTHING, nullptr},
};

/// Asked for by the shells only, and so in no list.
constexpr Command COMPLETE = {"complete", "[-- WORD...]",  "what a word may be", 0,
                              ANY_NUMBER, Arguments::None, TAKES_NOTHING,        completeCommand};

constexpr std::string_view EXIT_STATUS_HELP =
    "Exit status: 0 done, 1 refused, failed or problems found, 2 wrong usage,\n"
    "3 the bus or the daemon cannot be reached, 4 the time limit was reached.\n";

[[nodiscard]] const Command* findCommand(std::string_view name)
{
    const auto found = std::find_if(COMMANDS.begin(), COMMANDS.end(),
                                    [name](const Command& command) { return command.name == name; });
    if (found != COMMANDS.end()) {
        return &*found;
    }
    return name == COMPLETE.name ? &COMPLETE : nullptr;
}

[[nodiscard]] std::string usageLine(const Command& command)
{
    std::string line = "zonectl [OPTION...] " + std::string(command.name);
    if (!command.usage.empty()) {
        line += " " + std::string(command.usage);
    }
    return line;
}

/// A name and what it means, in two columns; the lines of the meaning stand below each other.
[[nodiscard]] std::string helpLine(std::string left, std::size_t width, std::string_view meaning)
{
    left.resize(width + 2, ' ');
    std::string text = "  " + left;
    for (const char character : meaning) {
        text += character;
        if (character == '\n') {
            text += std::string(width + 4, ' ');
        }
    }
    return text + "\n";
}

[[nodiscard]] std::string commandList()
{
    std::size_t width = 0;
    for (const Command& command : COMMANDS) {
        width = std::max(width, command.name.size() + 1 + command.usage.size());
    }
    std::string text;
    for (const Command& command : COMMANDS) {
        text += helpLine(std::string(command.name) + " " + std::string(command.usage), width, command.help);
    }
    return text;
}

/// The commands that take an option that not all take: "start, stop: ".
[[nodiscard]] std::string takers(unsigned int option)
{
    std::string names;
    for (const Command& command : COMMANDS) {
        if ((command.takes & option) != 0) {
            names += (names.empty() ? "" : ", ") + std::string(command.name);
        }
    }
    return names + ": ";
}

/// The options of a command, or those of all.
[[nodiscard]] std::string optionList(const Command* command)
{
    std::size_t width = 0;
    for (const OptionHelp& option : OPTIONS) {
        width = std::max(width, option.name.size() + option.value.size());
    }
    std::string text = "Options:\n";
    for (const OptionHelp& option : OPTIONS) {
        const bool general = option.takenBy == TAKES_NOTHING;
        if (command == nullptr || general || (command->takes & option.takenBy) != 0) {
            const std::string meaning =
                (command == nullptr && !general ? takers(option.takenBy) : "") + std::string(option.help);
            text += helpLine(std::string(option.name) + std::string(option.value), width, meaning);
        }
    }
    return text;
}

/// How many of a command's first arguments are names of zones, at most.
[[nodiscard]] std::size_t zonesAmong(Arguments arguments)
{
    switch (arguments) {
    case Arguments::Zones:
        return ANY_NUMBER;
    case Arguments::ZoneAndState:
    case Arguments::CommandLine:
        return 1;
    case Arguments::None:
    case Arguments::Files:
        break;
    }
    return 0;
}

/// A name that begins with a dash needs a "--" before it; the one behind it then separates all the same.
[[nodiscard]] Options withoutSecondSeparator(Options options)
{
    if (options.separated && options.arguments.size() > 1 && options.arguments[1] == "--") {
        options.arguments.erase(options.arguments.begin() + 1);
    }
    return options;
}

/// Refuses what the command does not take, before anything is done.
void checkUsage(const Command& command, const Options& options)
{
    const std::size_t count = options.arguments.size();
    if (count < command.fewest || count > command.most) {
        throw Failure(EXIT_USAGE, (count < command.fewest ? "an argument is missing" : "too many arguments") +
                                      std::string(" (usage: ") + usageLine(command) + ")");
    }
    const std::size_t zones = std::min(zonesAmong(command.arguments), count);
    if (std::any_of(options.arguments.begin(), options.arguments.begin() + static_cast<std::ptrdiff_t>(zones),
                    [](const std::string& name) { return name.empty(); })) {
        throw Failure(EXIT_USAGE, "the zone's name is empty");
    }
    for (const OptionHelp& option : OPTIONS) {
        if (option.takenBy != TAKES_NOTHING && (command.takes & option.takenBy) == 0 &&
            option.given(options)) {
            throw Failure(EXIT_USAGE,
                          std::string(option.name) + " has no meaning for " + std::string(command.name));
        }
    }
}

} // namespace

std::span<const Command> allCommands()
{
    return COMMANDS;
}

std::span<const OptionHelp> allOptions()
{
    return OPTIONS;
}

std::string helpText(std::string_view name)
{
    if (const Command* command = findCommand(name)) {
        return "Usage: " + usageLine(*command) + "\n\n" + std::string(command->name) + ": " +
               std::string(command->help) + "\n\n" + optionList(command) + "\n" +
               std::string(EXIT_STATUS_HELP);
    }
    return "Usage: zonectl [OPTION...] COMMAND\n\nTalks to the zone manager over the system "
           "bus.\n\nCommands:\n" +
           commandList() + "\n" + optionList(nullptr) + "\n" + std::string(EXIT_STATUS_HELP);
}

ExitStatus runCommand(const Options& options)
{
    if (options.help) {
        std::cout << helpText(options.command);
        return EXIT_OK;
    }
    if (options.version) {
        std::cout << "zonectl " ZONECTL_VERSION "\n";
        return EXIT_OK;
    }
    if (options.command.empty()) {
        throw Failure(EXIT_USAGE, "no command given (try 'zonectl --help')");
    }
    const Command* command = findCommand(options.command);
    if (command == nullptr) {
        throw Failure(EXIT_USAGE,
                      "unknown command '" + printable(options.command) + "' (try 'zonectl --help')");
    }
    const Options understood =
        command->arguments == Arguments::CommandLine ? withoutSecondSeparator(options) : options;
    checkUsage(*command, understood);
    return command->handler(understood, Style::forStandardOutput(options.color));
}

} // namespace Zonectl
