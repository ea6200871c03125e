// The checks of this file are the daemon's contract with the container runtime: no build may switch them off.
#undef NDEBUG
#include "ZoneCore/ZoneContainerState.h"

#include "Common/Log.h"

#include <array>
#include <cassert>
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
    assert(stateToEnumMap.find(state) != stateToEnumMap.end());
    return stateToEnumMap.find(state)->second;
}

std::string ZoneContainerState::stateToString(const ZoneState& state)
{
    assert(stateToStringMap.find(state) != stateToStringMap.end());
    return stateToStringMap.find(state)->second;
}

} // namespace ZoneCore
