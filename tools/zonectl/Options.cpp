#include "Options.h"

#include "Common/Handles.h"
#include "Failure.h"

#include <array>

namespace Zonectl {

namespace {

using OptionContextPtr = std::unique_ptr<GOptionContext, ZoneCore::FreeWith<g_option_context_free>>;
using StringPtr = std::unique_ptr<char, ZoneCore::FreeWith<g_free>>;

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

[[nodiscard]] std::chrono::seconds timeoutSeconds(int seconds)
{
    if (seconds < 1 || seconds > LONGEST_TIMEOUT_SECONDS) {
        throw Failure(EXIT_USAGE, "--timeout takes a number of seconds from 1 to " +
                                      std::to_string(LONGEST_TIMEOUT_SECONDS));
    }
    return std::chrono::seconds(seconds);
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
        } else if (options.command.empty()) {
            options.command = text;
        } else {
            options.arguments.push_back(text);
        }
    }
}

} // namespace

Options parseOptions(const std::vector<std::string>& arguments)
{
    requireUtf8(arguments);
    gboolean help = FALSE;
    gboolean version = FALSE;
    gboolean json = FALSE;
    gboolean wait = FALSE;
    gboolean clean = FALSE;
    gboolean yes = FALSE;
    char* color = nullptr;
    char* timeout = nullptr;
    char* root = nullptr;
    char* file = nullptr;
    const std::array<GOptionEntry, 11> entries = {{
        {"help", 'h', 0, G_OPTION_ARG_NONE, &help, nullptr, nullptr},
        {"version", 0, 0, G_OPTION_ARG_NONE, &version, nullptr, nullptr},
        {"json", 0, 0, G_OPTION_ARG_NONE, &json, nullptr, nullptr},
        {"wait", 0, 0, G_OPTION_ARG_NONE, &wait, nullptr, nullptr},
        {"clean", 0, 0, G_OPTION_ARG_NONE, &clean, nullptr, nullptr},
        {"yes", 0, 0, G_OPTION_ARG_NONE, &yes, nullptr, nullptr},
        {"color", 0, 0, G_OPTION_ARG_STRING, &color, nullptr, nullptr},
        {"timeout", 0, 0, G_OPTION_ARG_STRING, &timeout, nullptr, nullptr},
        {"root", 0, 0, G_OPTION_ARG_STRING, &root, nullptr, nullptr},
        {"file", 0, 0, G_OPTION_ARG_STRING, &file, nullptr, nullptr},
        {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
    }};

    const OptionContextPtr context(g_option_context_new(nullptr));
    // The help text is written from the table of commands, and nobody but `main` ends the process.
    g_option_context_set_help_enabled(context.get(), FALSE);
    g_option_context_add_main_entries(context.get(), entries.data(), nullptr);
    ArgumentVector rest(arguments);
    ZoneCore::GErrorPtr error;
    const bool parsed =
        g_option_context_parse_strv(context.get(), rest.address(), ZoneCore::OutError(error)) != FALSE;
    const StringPtr colorText(color);
    const StringPtr timeoutText(timeout);
    const StringPtr rootText(root);
    const StringPtr fileText(file);
    if (!parsed) {
        throw Failure(EXIT_USAGE, error ? error->message : "the command line cannot be read");
    }

    Options options;
    options.help = help != FALSE;
    options.version = version != FALSE;
    options.json = json != FALSE;
    options.wait = wait != FALSE;
    options.clean = clean != FALSE;
    options.yes = yes != FALSE;
    if (colorText) {
        options.color = colorMode(colorText.get());
    }
    if (timeoutText) {
        gint64 seconds = 0;
        const bool number = g_ascii_string_to_signed(timeoutText.get(), 10, 0, LONGEST_TIMEOUT_SECONDS,
                                                     &seconds, nullptr) != FALSE;
        options.timeout = timeoutSeconds(number ? static_cast<int>(seconds) : -1);
    }
    if (rootText) {
        options.root = rootDirectory(rootText.get());
    }
    if (fileText) {
        if (*fileText == '\0') {
            throw Failure(EXIT_USAGE, "--file takes the name of a file, or -");
        }
        options.file = fileText.get();
    }
    takePositionals(rest, options);
    return options;
}

} // namespace Zonectl
