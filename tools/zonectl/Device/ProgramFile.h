#pragma once

#include "Device/Machine.h"

#include <string>

namespace Zonectl {

/// What keeps an executable file from being run.
struct ProgramFault
{
    enum class Kind
    {
        None,
        Interpreter, ///< what runs it is not there
        Format,      ///< neither a program for this machine nor a script
    };

    Kind kind = Kind::None;
    std::string detail{}; ///< the interpreter, or what is wrong with the format
};

/// Looks into a program or script. For which processor a program is made counts on the running machine only.
[[nodiscard]] ProgramFault inspectProgram(const Machine& machine, const std::string& path);

/// Whether the file ends before what its ELF header promises. The loader does not look, and a process that
/// touches the missing part is killed.
[[nodiscard]] bool isCutShort(const Machine& machine, const std::string& path);

} // namespace Zonectl
