#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

namespace Zonectl {

using LineTaker = std::function<void(std::string_view line)>;

/// Hands each line of a file, or of standard input for "-", to the taker.
/// Throws Failure when it cannot be read, or not to its end within the limit.
void readLogFile(const std::string& path, std::chrono::seconds limit, const LineTaker& take);

/// Hands each record that the journal has of the daemon since the machine came up to the taker, as a line of
/// JSON. Throws Failure when there is no journal, or it does not come to an end within the limit.
void readJournal(std::chrono::seconds limit, const LineTaker& take);

} // namespace Zonectl
