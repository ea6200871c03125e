#include "Commands.h"
#include "Daemon/BusClient.h"
#include "Daemon/ZoneWords.h"
#include "Device/Containers.h"

#include <algorithm>
#include <array>
#include <iostream>

namespace Zonectl {

namespace {

/// A shell asks between two key strokes.
constexpr std::chrono::seconds BUS_PATIENCE(1);

constexpr std::array COLOR_MODES = {"auto", "always", "never"};

void offer(std::string_view word, std::string_view candidate, std::string_view help = "")
{
    if (candidate.starts_with(word) && printable(candidate) == candidate) {
        std::cout << candidate << (help.empty() ? "" : "\t") << help.substr(0, help.find('\n')) << "\n";
    }
}

/// The zones as the daemon names them; without it, the containers that are defined.
[[nodiscard]] std::vector<std::string> zoneNames()
{
    try {
        return BusClient(BUS_PATIENCE).zoneNames();
    } catch (const Failure&) {
        const Machine machine{""};
        return configuredNames(machine, configuredLxcPath(machine));
    }
}

/// What stands before the word that is completed.
struct Before
{
    const Command* command = nullptr;
    std::vector<std::string> arguments; ///< of the command
    std::string option;                 ///< the option whose value the word is; empty for none
    bool separated = false;             ///< by "--", behind which there are no options
};

/// A name that begins with a dash is one behind "--" only.
void offerZones(std::string_view word, const Before& before)
{
    const auto& given = before.arguments;
    for (const std::string& name : zoneNames()) {
        const bool mayStand = before.separated || !name.starts_with('-');
        if (mayStand && std::find(given.begin(), given.end(), name) == given.end()) {
            offer(word, name);
        }
    }
}

void offerStates(std::string_view word)
{
    for (int state = 0; !stateWord(state).starts_with("UNKNOWN"); ++state) {
        offer(word, stateWord(state));
    }
}

/// The next argument of the command; files are the shell's own business.
void offerArguments(std::string_view word, const Before& before)
{
    const bool first = before.arguments.empty();
    if (before.arguments.size() >= before.command->most) {
        return;
    }
    switch (before.command->arguments) {
    case Arguments::Zones:
        offerZones(word, before);
        break;
    case Arguments::ZoneAndState:
        first ? offerZones(word, before) : offerStates(word);
        break;
    case Arguments::CommandLine:
        if (first) {
            offerZones(word, before);
        }
        break;
    case Arguments::None:
    case Arguments::Files:
        break;
    }
}

void offerOptions(const Command* command, std::string_view word)
{
    for (const OptionHelp& option : allOptions()) {
        if (option.takenBy == TAKES_NOTHING ||
            (command != nullptr && (command->takes & option.takenBy) != 0)) {
            offer(word, option.name, option.help);
        }
    }
}

void offerCommands(std::string_view word)
{
    for (const Command& command : allCommands()) {
        offer(word, command.name, command.help);
    }
}

[[nodiscard]] const Command* commandNamed(std::string_view name)
{
    for (const Command& command : allCommands()) {
        if (command.name == name) {
            return &command;
        }
    }
    return nullptr;
}

/// The option whose value a word is: one that takes its value as a word of its own.
[[nodiscard]] bool takesNextWord(std::string_view word)
{
    return std::any_of(allOptions().begin(), allOptions().end(), [word](const OptionHelp& option) {
        return option.name == word && (option.value.starts_with(' ') || option.value.starts_with('='));
    });
}

[[nodiscard]] Before readWords(const std::vector<std::string>& words)
{
    Before before;
    for (const std::string& word : words) {
        if (!before.option.empty()) {
            before.option.clear();
        } else if (word == "--" && !before.separated) {
            before.separated = true;
        } else if (word.starts_with('-') && !before.separated) {
            before.option = takesNextWord(word) ? word : "";
        } else if (before.command != nullptr) {
            before.arguments.push_back(word);
        } else {
            before.command = commandNamed(word);
        }
    }
    return before;
}

} // namespace

ExitStatus completeCommand(const Options& options, const Style& /*style*/)
{
    std::vector<std::string> words = options.arguments;
    const std::string word = words.empty() ? "" : words.back();
    if (!words.empty()) {
        words.pop_back();
    }
    const Before before = readWords(words);
    if (before.option == "--color") {
        for (const char* mode : COLOR_MODES) {
            offer(word, mode);
        }
    } else if (!before.option.empty()) {
        return EXIT_OK; // a number or the name of a file
    } else if (word.starts_with('-') && !before.separated) {
        offerOptions(before.command, word);
    } else if (before.command == nullptr) {
        offerCommands(word);
    } else {
        offerArguments(word, before);
    }
    return EXIT_OK;
}

} // namespace Zonectl
