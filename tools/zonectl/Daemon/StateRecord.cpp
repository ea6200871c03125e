#include "Daemon/StateRecord.h"

#include "Daemon/ZoneWords.h"

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace Zonectl {

namespace {

/// A record as it lies in the stream.
struct Layout
{
    std::int32_t type;
    std::array<char, 256> name;
    std::int32_t value;
};
static_assert(sizeof(Layout) == RECORD_SIZE, "no padding");

constexpr std::int32_t STATE_MESSAGE = 0;
constexpr std::size_t LONGEST_ADDRESS = 105;

/// LXC's numbers begin with STOPPED, the daemon's with NONE.
[[nodiscard]] std::string recordStateWord(std::int32_t state)
{
    const bool known = state >= 0 && state < ZoneCore::THAWED;
    return known ? stateWord(state + 1) : "UNKNOWN(" + std::to_string(state) + ")";
}

[[nodiscard]] std::uint64_t fnv1a64(std::string_view text)
{
    constexpr std::uint64_t OFFSET_BASIS = 0xcbf29ce484222325;
    constexpr std::uint64_t PRIME = 0x100000001b3;
    std::uint64_t hash = OFFSET_BASIS;
    for (const char byte : text) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * PRIME;
    }
    return hash;
}

} // namespace

StateRecord parseRecord(const RecordBytes& bytes)
{
    Layout record = {};
    std::memcpy(&record, bytes.data(), bytes.size());
    const auto end = std::find(record.name.begin(), record.name.end(), '\0');
    return {.isState = record.type == STATE_MESSAGE,
            .zone = std::string(record.name.begin(), end),
            .state = recordStateWord(record.value)};
}

void RecordAssembler::feed(std::string_view bytes, const std::function<void(const StateRecord&)>& take)
{
    while (!bytes.empty()) {
        const std::size_t count = std::min(RECORD_SIZE - length, bytes.size());
        std::memcpy(pending.data() + length, bytes.data(), count);
        length += count;
        bytes.remove_prefix(count);
        if (length == RECORD_SIZE) {
            length = 0;
            take(parseRecord(pending));
        }
    }
}

std::string subscribersAddress(const std::string& lxcPath)
{
    std::array<char, 32> hash{};
    static_cast<void>(std::snprintf(hash.data(), hash.size(), "lxc/%016" PRIx64 "/",
                                    fnv1a64("lxc/" + lxcPath + "/monitor-sock")));
    return (hash.data() + lxcPath).substr(0, LONGEST_ADDRESS);
}

} // namespace Zonectl
