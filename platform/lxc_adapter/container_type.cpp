#include "platform/lxc_adapter/container_type.h"

#include <array>
#include <fstream>
#include <optional>
#include <string_view>

namespace LxcAdapter {

namespace {

constexpr std::string_view KEY = "zone.container_type";
constexpr std::string_view BLANKS = " \t\r";

struct Kind
{
    int number;
    std::string_view digit;
    std::string_view word;
};

constexpr std::array<Kind, 3> KINDS{{
    {1, "1", "isolation"},
    {2, "2", "hybrid"},
    {3, "3", "protection"},
}};

std::string_view trim(std::string_view text)
{
    const auto first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

/// The value of a line of our key, nothing for any other line.
std::optional<std::string_view> valueOf(std::string_view line)
{
    const auto equals = line.find('=');
    if (equals == std::string_view::npos || trim(line.substr(0, equals)) != KEY) {
        return std::nullopt;
    }
    return trim(line.substr(equals + 1));
}

int kindNumber(std::string_view value)
{
    for (const auto& kind : KINDS) {
        if (value == kind.digit || value == kind.word) {
            return kind.number;
        }
    }
    return NO_CONTAINER_TYPE;
}

} // namespace

int readContainerType(std::istream& configuration)
{
    int type = NO_CONTAINER_TYPE;
    for (std::string line; std::getline(configuration, line);) {
        if (const auto value = valueOf(line)) {
            type = kindNumber(*value);
        }
    }
    return type;
}

int readContainerType(const std::string& path)
{
    std::ifstream file(path);
    return readContainerType(file);
}

} // namespace LxcAdapter
