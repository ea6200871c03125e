#include "Doctor/LabelLines.h"

#include "Daemon/Names.h"

#include <string_view>

namespace Zonectl {

namespace {

/// Only root may change what lies in the daemon's own directories; those of a zone may belong to its users,
/// and what is there stays as it is.
constexpr const char* FOR_ROOT = " 0755 root root -\n";
constexpr const char* AS_IT_IS = " - - - -\n";

/// A path as a field of a line.
[[nodiscard]] std::string asField(std::string_view path)
{
    std::string field = "\"";
    for (const char character : path) {
        if (character == '"' || character == '\\') {
            field += '\\';
        } else if (character == '%') {
            field += '%';
        }
        field += character;
    }
    return path.find_first_of(" \t\"'\\") == std::string_view::npos ? field.substr(1) : field + '"';
}

/// A pattern that only this path matches; the lines that set labels take patterns.
[[nodiscard]] std::string asPattern(std::string_view path)
{
    constexpr std::string_view WILD = "*?[]{}\\";
    std::string pattern;
    for (const char character : path) {
        if (WILD.find(character) != std::string_view::npos) {
            pattern += '\\';
        }
        pattern += character;
    }
    return pattern;
}

} // namespace

std::string tmpfilesLines(const std::vector<LabelRule>& rules, const std::string& lxcPath)
{
    std::string lines =
        lxcPath.empty() ? std::string() : "d " + asField(Names::WRITABLE_PREFIX + lxcPath) + FOR_ROOT;
    for (const LabelRule& rule : rules) {
        if (rule.path.find('\n') != std::string::npos) {
            lines += "# left out: a path that no line can hold\n";
            continue;
        }
        if (!rule.creatable.empty()) {
            lines += "d " + asField(rule.path) + (rule.zone.empty() ? FOR_ROOT : AS_IT_IS);
        }
        if (rule.enforced) {
            lines += "t " + asField(asPattern(rule.path)) + " - - - - " + Names::LABEL_ATTRIBUTE + "=" +
                     rule.wanted + "\n";
        }
    }
    return lines;
}

} // namespace Zonectl
