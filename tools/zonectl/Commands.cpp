#include "Commands.h"

#include <algorithm>
#include <array>
#include <iostream>

namespace Zonectl {

namespace {

constexpr std::array COMMANDS = {
    Command{"list", "", "all zones: kind, state and init process", 0, 0, false, false, listCommand},
    Command{"state", "NAME", "the state of a zone", 1, 1, false, false, stateCommand},
    Command{"init-pid", "NAME", "the process id of a zone's init", 1, 1, false, false, initPidCommand},
    Command{"start", "[--wait] NAME", "ask for the start of a zone", 1, 1, true, false, startCommand},
    Command{"stop", "[--wait] NAME", "ask for the stop of a zone", 1, 1, true, false, stopCommand},
    Command{"unfreeze", "[--wait] NAME", "ask for a frozen zone to go on", 1, 1, true, false,
            unfreezeCommand},
    Command{"version", "NAME", "the daemon's version, asked through a zone", 1, 1, false, false,
            versionCommand},
    Command{"watch", "[NAME]", "print state changes until interrupted", 0, 1, false, false, watchCommand},
    Command{"doctor", "[--root DIR]", "what the machine lacks for the daemon to work", 0, 0, false, true,
            doctorCommand},
    Command{"labels", "[--root DIR]", "the Smack labels that are and that should be", 0, 0, false, true,
            labelsCommand},
    Command{"explain", "[--file FILE] [NAME]", "what the daemon's log tells of a zone, or of all", 0, 1,
            false, false, explainCommand, true},
    Command{"leftovers", "[--clean [--yes]]", "what earlier runs left behind", 0, 0, false, true,
            leftoversCommand, false, true},
};

constexpr std::string_view OPTIONS_HELP =
    "Options:\n"
    "  --json             machine-readable output\n"
    "  --timeout SECONDS  how long a call, --wait, watch, explain or a question may\n"
    "                     last (30 by default, without end for watch)\n"
    "  --color=WHEN       auto, always or never\n"
    "  --wait             start, stop, unfreeze: wait until it has happened\n"
    "  --clean            leftovers: remove what was found, asking for each\n"
    "  --yes              with --clean: do not ask\n"
    "  --root DIR         doctor, labels, leftovers: look at the system below DIR\n"
    "  --file FILE        explain: read the log in FILE, - for standard input\n"
    "  --version          the version of this program\n"
    "  -h, --help         this text, or that of a command\n"
    "\n"
    "Exit status: 0 done, 1 refused, failed or problems found, 2 wrong usage,\n"
    "3 the bus or the daemon cannot be reached, 4 the log does not end in time.\n";

[[nodiscard]] const Command* findCommand(std::string_view name)
{
    for (const Command& command : COMMANDS) {
        if (command.name == name) {
            return &command;
        }
    }
    return nullptr;
}

[[nodiscard]] std::string usageLine(const Command& command)
{
    std::string line = "zonectl [OPTION...] " + std::string(command.name);
    if (!command.usage.empty()) {
        line += " " + std::string(command.usage);
    }
    return line;
}

[[nodiscard]] std::string commandList()
{
    std::size_t width = 0;
    for (const Command& command : COMMANDS) {
        width = std::max(width, command.name.size() + 1 + command.usage.size());
    }
    std::string text;
    for (const Command& command : COMMANDS) {
        std::string left = std::string(command.name) + " " + std::string(command.usage);
        left.resize(width + 2, ' ');
        text += "  " + left + std::string(command.help) + "\n";
    }
    return text;
}

/// Refuses what the command does not take, before anything is done.
void checkUsage(const Command& command, const Options& options)
{
    const std::size_t count = options.arguments.size();
    if (count < command.fewest || count > command.most) {
        throw Failure(EXIT_USAGE, (count < command.fewest ? "an argument is missing" : "too many arguments") +
                                      std::string(" (usage: ") + usageLine(command) + ")");
    }
    for (const std::string& argument : options.arguments) {
        if (argument.empty()) {
            throw Failure(EXIT_USAGE, "the zone's name is empty");
        }
    }
    if (options.wait && !command.takesWait) {
        throw Failure(EXIT_USAGE, "--wait has no meaning for " + std::string(command.name));
    }
    if ((options.clean || options.yes) && !command.takesClean) {
        throw Failure(EXIT_USAGE, std::string(options.clean ? "--clean" : "--yes") + " has no meaning for " +
                                      std::string(command.name));
    }
    if (!options.root.empty() && !command.takesRoot) {
        throw Failure(EXIT_USAGE, "--root has no meaning for " + std::string(command.name));
    }
    if (!options.file.empty() && !command.takesFile) {
        throw Failure(EXIT_USAGE, "--file has no meaning for " + std::string(command.name));
    }
}

} // namespace

std::string helpText(std::string_view name)
{
    if (const Command* command = findCommand(name)) {
        return "Usage: " + usageLine(*command) + "\n\n" + std::string(command->name) + ": " +
               std::string(command->help) + "\n\n" + std::string(OPTIONS_HELP);
    }
    return "Usage: zonectl [OPTION...] COMMAND\n\nTalks to the zone manager over the system "
           "bus.\n\nCommands:\n" +
           commandList() + "\n" + std::string(OPTIONS_HELP);
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
    checkUsage(*command, options);
    return command->handler(options, Style::forStandardOutput(options.color));
}

} // namespace Zonectl
