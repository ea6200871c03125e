#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace Zonectl {

/// The length of LXC's state record.
inline constexpr std::size_t RECORD_SIZE = 264;

using RecordBytes = std::array<char, RECORD_SIZE>;

/// What a state record tells.
struct StateRecord
{
    bool isState = false; ///< and not one of LXC's other messages
    std::string zone{};
    std::string state{}; ///< the word
};

[[nodiscard]] StateRecord parseRecord(const RecordBytes& bytes);

/// Cuts a stream of bytes into records, in whatever pieces it comes.
class RecordAssembler
{
public:
    /// Hands each record that became whole to the taker.
    void feed(std::string_view bytes, const std::function<void(const StateRecord&)>& take);
    /// Forgets the beginning of a record whose stream has ended.
    void reset() { length = 0; }

private:
    RecordBytes pending{};
    std::size_t length = 0;
};

/// The name of the abstract socket at which subscribers connect for an LXC path, without the zero byte before
/// it.
[[nodiscard]] std::string subscribersAddress(const std::string& lxcPath);

} // namespace Zonectl
