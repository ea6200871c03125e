#pragma once

#include <array>
#include <cerrno>

namespace ZoneCore {

/// The text of a system error, for a log line. Holds its own buffer, so it may be used on several threads at
/// once.
class SystemErrorText
{
public:
    /// @param error an errno value; by default the current one, so make the object before anything can change
    /// it.
    explicit SystemErrorText(int error = errno);

    SystemErrorText(const SystemErrorText&) = delete;
    SystemErrorText& operator=(const SystemErrorText&) = delete;

    /// The text; never null, valid as long as this object.
    [[nodiscard]] const char* c_str() const { return text; }

private:
    std::array<char, 1024> buffer{"Failed to get errno string"};
    const char* text;
};

} // namespace ZoneCore
