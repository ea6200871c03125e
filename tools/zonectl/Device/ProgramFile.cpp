#include "Device/ProgramFile.h"

#include <algorithm>
#include <cstring>
#include <elf.h>
#include <optional>
#include <string_view>
#include <vector>

namespace Zonectl {

namespace {

/// A structure out of the bytes of a file; nothing when they end before.
template <typename Structure>
[[nodiscard]] std::optional<Structure> structureAt(std::string_view bytes, std::uint64_t offset)
{
    if (offset > bytes.size() || bytes.size() - offset < sizeof(Structure)) {
        return std::nullopt;
    }
    Structure structure{};
    std::memcpy(&structure, bytes.data() + static_cast<std::size_t>(offset), sizeof(structure));
    return structure;
}

/// A part of the file that the loader maps or reads.
struct Segment
{
    std::uint32_t type = 0;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

/// The segments of an ELF file, as far as the table of them is there.
template <typename Header, typename Entry>
[[nodiscard]] std::vector<Segment> segmentsOf(std::string_view bytes)
{
    std::vector<Segment> segments;
    const auto header = structureAt<Header>(bytes, 0);
    for (std::size_t i = 0; header && i < header->e_phnum; ++i) {
        if (const auto entry = structureAt<Entry>(bytes, header->e_phoff + i * header->e_phentsize)) {
            segments.push_back({.type = entry->p_type, .offset = entry->p_offset, .size = entry->p_filesz});
        }
    }
    return segments;
}

[[nodiscard]] std::vector<Segment> segmentsOf(std::string_view bytes)
{
    const bool wide = bytes.size() > EI_CLASS && bytes[EI_CLASS] == ELFCLASS64;
    return wide ? segmentsOf<Elf64_Ehdr, Elf64_Phdr>(bytes) : segmentsOf<Elf32_Ehdr, Elf32_Phdr>(bytes);
}

/// The program that loads an ELF program; empty when it needs none.
[[nodiscard]] std::string loaderOf(std::string_view bytes)
{
    for (const Segment& segment : segmentsOf(bytes)) {
        if (segment.type == PT_INTERP && segment.offset < bytes.size()) {
            const std::string_view text = bytes.substr(static_cast<std::size_t>(segment.offset),
                                                       static_cast<std::size_t>(segment.size));
            return std::string(text.substr(0, text.find('\0')));
        }
    }
    return {};
}

[[nodiscard]] std::string ownProgram()
{
    return Machine("").read("/proc/self/exe").value_or("");
}

/// The processor family; it lies at the same place in both sizes of the header.
[[nodiscard]] std::optional<Elf32_Half> processorOf(std::string_view bytes)
{
    return structureAt<Elf32_Half>(bytes, offsetof(Elf32_Ehdr, e_machine));
}

[[nodiscard]] ProgramFault missingInterpreter(const Machine& machine, const std::string& interpreter)
{
    if (interpreter.empty() || machine.isProgram(interpreter)) {
        return {};
    }
    return {.kind = ProgramFault::Kind::Interpreter, .detail = interpreter};
}

[[nodiscard]] ProgramFault inspectBinary(const Machine& machine, std::string_view bytes)
{
    if (machine.live() && processorOf(bytes) != processorOf(ownProgram())) {
        return {.kind = ProgramFault::Kind::Format, .detail = "a program for another processor"};
    }
    return missingInterpreter(machine, loaderOf(bytes));
}

/// The first word behind "#!".
[[nodiscard]] std::string scriptInterpreter(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t";
    text = text.substr(0, text.find('\n')).substr(2);
    const std::size_t begin = text.find_first_not_of(BLANKS);
    if (begin == std::string_view::npos) {
        return {};
    }
    return std::string(text.substr(begin, text.find_first_of(BLANKS, begin) - begin));
}

} // namespace

ProgramFault inspectProgram(const Machine& machine, const std::string& path)
{
    const std::string bytes = machine.read(path).value_or("");
    if (bytes.starts_with("#!")) {
        return missingInterpreter(machine, scriptInterpreter(bytes));
    }
    if (bytes.starts_with(ELFMAG)) {
        return inspectBinary(machine, bytes);
    }
    return {.kind = ProgramFault::Kind::Format, .detail = "neither a program nor a script with #!"};
}

bool isCutShort(const Machine& machine, const std::string& path)
{
    const std::string bytes = machine.read(path).value_or("");
    const std::vector<Segment> segments = segmentsOf(bytes);
    return std::any_of(segments.begin(), segments.end(), [&bytes](const Segment& segment) {
        return segment.type == PT_LOAD &&
               (segment.offset > bytes.size() || segment.size > bytes.size() - segment.offset);
    });
}

} // namespace Zonectl
