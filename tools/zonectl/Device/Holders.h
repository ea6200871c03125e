#pragma once

#include "Device/Machine.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace Zonectl {

/// A process that has something which the daemon needs for itself.
struct Holder
{
    pid_t pid = 0;         ///< 0 for a process that cannot be seen from here
    std::string program{}; ///< the name of its executable file; empty when unknown

    [[nodiscard]] bool isDaemon() const;
    /// The program and the number, or that neither is known.
    [[nodiscard]] std::string description() const;
};

/// The process with the number.
[[nodiscard]] Holder processHolder(const Machine& machine, pid_t pid);

/// Who has a lock on the file, of whatever kind; nothing when nobody has.
[[nodiscard]] std::optional<Holder> lockHolder(const Machine& machine, const std::string& path);

/// Who is bound to the abstract address (without its zero byte); nothing when nobody is.
[[nodiscard]] std::optional<Holder> addressHolder(const Machine& machine, std::string_view address);

/// The abstract address of the publisher of state messages, for an LXC path.
[[nodiscard]] std::string publisherAddress(const std::string& lxcPath);

} // namespace Zonectl
