#include "Doctor/AutoStart.h"

#include <algorithm>
#include <array>
#include <glib.h>

namespace Zonectl {

namespace {

constexpr std::array ASSENT = {"yes", "true", "on"};
constexpr std::array REFUSAL = {"no", "false", "off"};

[[nodiscard]] bool isOneOf(const std::array<const char*, 3>& words, const std::string& text)
{
    return std::any_of(words.begin(), words.end(),
                       [&text](const char* word) { return g_ascii_strcasecmp(text.c_str(), word) == 0; });
}

} // namespace

bool hasPlainAutoStart(const ContainerInfo& container)
{
    const std::string& value = container.autoStartText;
    return value.empty() || value == "0" || value == "1";
}

std::vector<Repair> repairsOfAutoStart(const ContainerInfo& container, const std::string& config)
{
    const bool assent = isOneOf(ASSENT, container.autoStartText);
    if (!assent && !isOneOf(REFUSAL, container.autoStartText)) {
        return {};
    }
    return {{.kind = Repair::Kind::ReplaceKey,
             .path = config,
             .value = assent ? "lxc.start.auto = 1" : "lxc.start.auto = 0",
             .key = "lxc.start.auto"}};
}

std::string autoStartRemedy(const std::string& config)
{
    return "lxc.start.auto in " + config + ": 1 starts it automatically, 0 on request only";
}

} // namespace Zonectl
