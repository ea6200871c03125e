// Declares what a failed assertion calls, which it does not in a build with NDEBUG.
#undef NDEBUG
#include <cassert>

#include "ZoneCore/ZoneContainerState.h"

#include "Common/Log.h"

#include <array>
#include <unordered_map>
#include <utility>

namespace ZoneCore {

namespace {

constexpr std::array<std::pair<const char*, ZoneState>, 9> STATE_NAMES{{
    {"NONE", NONE},
    {"STOPPED", STOPPED},
    {"STARTING", STARTING},
    {"RUNNING", RUNNING},
    {"STOPPING", STOPPING},
    {"ABORTING", ABORTING},
    {"FREEZING", FREEZING},
    {"FROZEN", FROZEN},
    {"THAWED", THAWED},
}};

std::unordered_map<std::string, ZoneState> wordsToStates()
{
    return {STATE_NAMES.begin(), STATE_NAMES.end()};
}

std::unordered_map<ZoneState, std::string> statesToWords()
{
    std::unordered_map<ZoneState, std::string> words;
    for (const auto& [word, state] : STATE_NAMES) {
        words.emplace(state, word);
    }
    return words;
}

// Filled before main runs, only read afterwards.
const std::unordered_map<std::string, ZoneState> stateToEnumMap = wordsToStates();
const std::unordered_map<ZoneState, std::string> stateToStringMap = statesToWords();

/// The checks of this file are the daemon's contract with the container runtime: they stay active in every
/// build, and they end the process under the same names whatever the compiler makes of a signature.
void require(bool holds, const char* expression, int line, const char* signature)
{
    if (!holds) {
        __assert_fail(expression, __FILE__, static_cast<unsigned>(line), signature);
    }
}

} // namespace

ZoneContainerState::ZoneContainerState()
{
    ZLOGI("ZoneContainerState instance is created");
}

ZoneContainerState::~ZoneContainerState()
{
    ZLOGI("ZoneContainerState instance is destroyed");
}

ZoneState ZoneContainerState::stateToEnum(const std::string& state)
{
    const auto found = stateToEnumMap.find(state);
    require(found != stateToEnumMap.end(), "stateToEnumMap.find(state) != stateToEnumMap.end()", __LINE__,
            "ZoneCore::ZoneState ZoneCore::ZoneContainerState::stateToEnum(const string&)");
    return found->second;
}

std::string ZoneContainerState::stateToString(const ZoneState& state)
{
    const auto found = stateToStringMap.find(state);
    require(found != stateToStringMap.end(), "stateToStringMap.find(state) != stateToStringMap.end()",
            __LINE__, "std::string ZoneCore::ZoneContainerState::stateToString(const ZoneCore::ZoneState&)");
    return found->second;
}

} // namespace ZoneCore
