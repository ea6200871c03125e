#include "CommandLine/Options.h"

#include "CommandLine/Failure.h"
#include "Common/Handles.h"

#include <array>

namespace Zonectl {

namespace {

using OptionContextPtr = std::unique_ptr<GOptionContext, ZoneCore::FreeWith<g_option_context_free>>;

constexpr int LONGEST_TIMEOUT_SECONDS = 24 * 60 * 60;

/// A null-terminated vector in the form that GOption shortens while it reads.
class ArgumentVector
{
public:
    explicit ArgumentVector(const std::vector<std::string>& arguments)
        : strings(g_new0(char*, arguments.size() + 2))
    {
        strings[0] = g_strdup("zonectl");
        for (std::size_t i = 0; i < arguments.size(); ++i) {
            strings[i + 1] = g_strdup(arguments[i].c_str());
        }
    }
    ~ArgumentVector() { g_strfreev(strings); }
    ArgumentVector(const ArgumentVector&) = delete;
    ArgumentVector& operator=(const ArgumentVector&) = delete;

    [[nodiscard]] char*** address() { return &strings; }
    /// The i-th string behind the program's name; null behind the last.
    [[nodiscard]] const char* at(std::size_t i) const { return strings[i + 1]; }

private:
    char** strings;
};

[[nodiscard]] ColorMode colorMode(const std::string& text)
{
    if (text == "auto") {
        return ColorMode::Automatic;
    }
    if (text == "always") {
        return ColorMode::Always;
    }
    if (text == "never") {
        return ColorMode::Never;
    }
    throw Failure(EXIT_USAGE, "--color takes auto, always or never, not '" + text + "'");
}

[[nodiscard]] std::chrono::seconds secondsOf(const char* option, const char* text)
{
    gint64 seconds = 0;
    if (g_ascii_string_to_signed(text, 10, 1, LONGEST_TIMEOUT_SECONDS, &seconds, nullptr) == FALSE) {
        throw Failure(EXIT_USAGE, std::string(option) + " takes a number of seconds from 1 to " +
                                      std::to_string(LONGEST_TIMEOUT_SECONDS));
    }
    return std::chrono::seconds(seconds);
}

/// The name of a file that is read.
[[nodiscard]] std::string fileName(const char* text)
{
    if (*text == '\0') {
        throw Failure(EXIT_USAGE, "--file takes the name of a file, or -");
    }
    return text;
}

/// The name of a file that is written. Standard output shows the changes already.
[[nodiscard]] std::string newFileName(const std::string& text)
{
    if (text.empty() || text == "-") {
        throw Failure(EXIT_USAGE, "--record takes the name of a new file, and - is none");
    }
    return text;
}

/// GOption would take the word behind a bare "--wait" for its value, so it gets an empty one of its own.
[[nodiscard]] std::vector<std::string> withExplicitWait(std::vector<std::string> arguments)
{
    for (std::string& argument : arguments) {
        if (argument == "--") {
            break;
        }
        if (argument == "--wait") {
            argument = "--wait=";
        }
    }
    return arguments;
}

/// GOption and the bus both insist on UTF-8, so the whole line is looked at before either sees it.
void requireUtf8(const std::vector<std::string>& arguments)
{
    for (const std::string& argument : arguments) {
        if (g_utf8_validate(argument.c_str(), static_cast<gssize>(argument.size()), nullptr) == FALSE) {
            throw Failure(EXIT_USAGE, "an argument is not valid UTF-8");
        }
    }
}

/// The directory that --root names, without its trailing slashes; "/" is the running machine.
[[nodiscard]] std::string rootDirectory(std::string path)
{
    if (path.empty() || path.front() != '/') {
        throw Failure(EXIT_USAGE, "--root takes an absolute path");
    }
    while (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

/// The positional arguments; a "--" that GOption left between them is only a separator.
void takePositionals(const ArgumentVector& rest, Options& options)
{
    bool separatorSeen = false;
    for (std::size_t i = 0; rest.at(i) != nullptr; ++i) {
        const std::string text = rest.at(i);
        if (text == "--" && !separatorSeen) {
            separatorSeen = true;
            options.separated = options.arguments.empty();
        } else if (options.command.empty()) {
            options.command = text;
        } else {
            options.arguments.push_back(text);
        }
    }
}

/// The options as GOption leaves them, before their values are checked.
class OptionValues
{
public:
    /// Takes the options out of the vector.
    void readFrom(ArgumentVector& arguments)
    {
        // All texts are taken as file names are, byte by byte: GOption would turn others from the locale's
        // encoding, which is ASCII, into UTF-8, which they are.
        const std::array<GOptionEntry, 15> entries = {{
            {"help", 'h', 0, G_OPTION_ARG_NONE, &help, nullptr, nullptr},
            {"version", 0, 0, G_OPTION_ARG_NONE, &version, nullptr, nullptr},
            {"json", 0, 0, G_OPTION_ARG_NONE, &json, nullptr, nullptr},
            {"raw", 0, 0, G_OPTION_ARG_NONE, &raw, nullptr, nullptr},
            {"tmpfiles", 0, 0, G_OPTION_ARG_NONE, &tmpfiles, nullptr, nullptr},
            {"fix", 0, 0, G_OPTION_ARG_NONE, &fix, nullptr, nullptr},
            {"clean", 0, 0, G_OPTION_ARG_NONE, &clean, nullptr, nullptr},
            {"yes", 0, 0, G_OPTION_ARG_NONE, &yes, nullptr, nullptr},
            {"color", 0, 0, G_OPTION_ARG_FILENAME, &color.text, nullptr, nullptr},
            {"timeout", 0, 0, G_OPTION_ARG_FILENAME, &timeout.text, nullptr, nullptr},
            {"wait", 0, 0, G_OPTION_ARG_FILENAME, &wait.text, nullptr, nullptr},
            {"root", 0, 0, G_OPTION_ARG_FILENAME, &root.text, nullptr, nullptr},
            {"file", 0, 0, G_OPTION_ARG_FILENAME, &file.text, nullptr, nullptr},
            {"record", 0, 0, G_OPTION_ARG_FILENAME, &record.text, nullptr, nullptr},
            {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
        }};
        const OptionContextPtr context(g_option_context_new(nullptr));
        // The help text is written from the table of commands, and nobody but `main` ends the process.
        g_option_context_set_help_enabled(context.get(), FALSE);
        g_option_context_add_main_entries(context.get(), entries.data(), nullptr);
        ZoneCore::GErrorPtr error;
        if (g_option_context_parse_strv(context.get(), arguments.address(), ZoneCore::OutError(error)) ==
            FALSE) {
            throw Failure(EXIT_USAGE, error ? error->message : "the command line cannot be read");
        }
    }

    /// The options with their values understood.
    [[nodiscard]] Options checked() const
    {
        Options options;
        options.help = help != FALSE;
        options.version = version != FALSE;
        options.json = json != FALSE;
        options.raw = raw != FALSE;
        options.tmpfiles = tmpfiles != FALSE;
        options.fix = fix != FALSE;
        options.clean = clean != FALSE;
        options.yes = yes != FALSE;
        options.wait = wait.text != nullptr;
        if (color.text != nullptr) {
            options.color = colorMode(color.text);
        }
        if (timeout.text != nullptr) {
            options.timeout = secondsOf("--timeout", timeout.text);
        }
        if (wait.text != nullptr && *wait.text != '\0') {
            options.waitLimit = secondsOf("--wait", wait.text);
        }
        if (root.text != nullptr) {
            options.root = rootDirectory(root.text);
        }
        if (file.text != nullptr) {
            options.file = fileName(file.text);
        }
        if (record.text != nullptr) {
            options.record = newFileName(record.text);
        }
        return options;
    }

private:
    /// Owns the text of one option; GOption replaces it when the option comes again.
    struct Value
    {
        Value() = default;
        ~Value() { g_free(text); }
        Value(const Value&) = delete;
        Value& operator=(const Value&) = delete;

        char* text = nullptr; ///< null when the option was not given
    };

    gboolean help = FALSE;
    gboolean version = FALSE;
    gboolean json = FALSE;
    gboolean raw = FALSE;
    gboolean tmpfiles = FALSE;
    gboolean fix = FALSE;
    gboolean clean = FALSE;
    gboolean yes = FALSE;
    Value color;
    Value timeout;
    Value wait;
    Value root;
    Value file;
    Value record;
};

} // namespace

Options parseOptions(const std::vector<std::string>& arguments)
{
    requireUtf8(arguments);
    ArgumentVector rest(withExplicitWait(arguments));
    OptionValues values;
    values.readFrom(rest);
    Options options = values.checked();
    takePositionals(rest, options);
    return options;
}

} // namespace Zonectl
