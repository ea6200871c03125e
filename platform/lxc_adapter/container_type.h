#pragma once

#include <istream>
#include <string>

namespace LxcAdapter {

/// The answer for a container whose configuration names no kind.
inline constexpr int NO_CONTAINER_TYPE = -1;

/// Reads the kind's number, 1 to 3, from a container's configuration: the line "zone.container_type = N",
/// where N is the number or its word. The last such line holds, as with liblxc's own keys. Included files are
/// not looked into. Returns NO_CONTAINER_TYPE when there is no such line or its value is another one. Any
/// thread.
[[nodiscard]] int readContainerType(std::istream& configuration);

/// The same for a configuration file; a file that cannot be read names no kind.
[[nodiscard]] int readContainerType(const std::string& path);

} // namespace LxcAdapter
