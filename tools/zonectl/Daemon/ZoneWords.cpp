#include "Daemon/ZoneWords.h"

#include <array>
#include <cstddef>

namespace Zonectl {

namespace {

constexpr std::array<const char*, 9> STATE_WORDS = {"NONE",     "STOPPED",  "STARTING", "RUNNING", "STOPPING",
                                                    "ABORTING", "FREEZING", "FROZEN",   "THAWED"};
static_assert(STATE_WORDS.size() == ZoneCore::THAWED + 1);

struct KindName
{
    ZUP::ZoneType kind;
    std::string_view number;
    std::string_view word;
};

constexpr std::array KIND_NAMES = {
    KindName{ZUP::ZONE_TYPE_ISOLATION, "1", "isolation"},
    KindName{ZUP::ZONE_TYPE_HYBRID, "2", "hybrid"},
    KindName{ZUP::ZONE_TYPE_PROTECTION, "3", "protection"},
};

} // namespace

std::string stateWord(int state)
{
    if (state < 0 || static_cast<std::size_t>(state) >= STATE_WORDS.size()) {
        return "UNKNOWN(" + std::to_string(state) + ")";
    }
    return STATE_WORDS.at(static_cast<std::size_t>(state));
}

std::span<const char* const> stateWords()
{
    return STATE_WORDS;
}

std::string_view kindWord(ZUP::ZoneType kind)
{
    for (const KindName& name : KIND_NAMES) {
        if (name.kind == kind) {
            return name.word;
        }
    }
    return {};
}

ZUP::ZoneType kindFromText(std::string_view text)
{
    for (const KindName& name : KIND_NAMES) {
        if (text == name.number || text == name.word) {
            return name.kind;
        }
    }
    return ZUP::ZONE_TYPE_NONE;
}

ZUP::ZoneType kindFromNumber(int number)
{
    return kindFromText(std::to_string(number));
}

} // namespace Zonectl
