#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace Zonectl {

/// Whether somebody at a terminal can be asked.
[[nodiscard]] bool canAsk();

/// Asks on the terminal; nothing when there is no answer in time. The end of the input is a no, and what was
/// typed before the question is no answer.
[[nodiscard]] std::optional<bool> ask(const std::string& question, std::chrono::seconds patience);

} // namespace Zonectl
