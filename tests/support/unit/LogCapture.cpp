#include "tests/support/unit/LogCapture.h"

#include "tests/support/unit/Eventually.h"
#include "tests/support/unit/MessageCatalogue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <optional>
#include <sstream>
#include <string_view>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

// Present in programs built with a sanitizer only.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizers' own name.
extern "C" void __sanitizer_set_report_fd(void* fd) __attribute__((weak));

namespace ZoneTest {

namespace {

/// The log service looks at its environment once, at the first record. Before any of those is written, the
/// records are sent to standard error, and the sanitizers' reports to a descriptor that stays as it is.
__attribute__((constructor)) void sendLogToStandardError()
{
    static_cast<void>(setenv("ZONE_LOG_TARGET", "console", 1));
    static_cast<void>(setenv("ZONE_LOG_LEVEL", "debug", 1));
    if (__sanitizer_set_report_fd != nullptr) {
        const int reports = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(reports)));
    }
}

/// Takes a text apart from its beginning on. Once a part is missing, all further ones are empty.
class Cutter
{
public:
    explicit Cutter(std::string_view text) : rest(text) {}

    /// What lies before the next `end`, which is taken off as well.
    std::string upTo(std::string_view end)
    {
        const auto position = found ? rest.find(end) : std::string_view::npos;
        found = position != std::string_view::npos;
        if (!found) {
            return {};
        }
        const std::string part(rest.substr(0, position));
        rest.remove_prefix(position + end.size());
        return part;
    }
    int numberUpTo(std::string_view end) { return std::atoi(upTo(end).c_str()); }

    [[nodiscard]] std::string remainder() const { return std::string(rest); }
    [[nodiscard]] bool foundAll() const { return found; }

private:
    std::string_view rest;
    bool found = true;
};

/// A record is "LEVEL/TAG(PID:TID): FILE: FUNCTION(LINE) > COLOUR[SIGNATURE:LINE] BODY RESET".
std::optional<LogRecord> parse(const std::string& line)
{
    constexpr std::string_view reset = "\x1b[0m";
    if (line.size() < reset.size() || !line.ends_with(reset)) {
        return std::nullopt;
    }
    LogRecord record;
    Cutter text(std::string_view(line).substr(0, line.size() - reset.size()));
    record.level = line.front();
    if (text.upTo("/ZONE_MANAGER(").size() != 1) {
        return std::nullopt;
    }
    record.process = text.numberUpTo(":");
    record.thread = text.numberUpTo("): ");
    record.file = text.upTo(": ");
    // A function's name may end in parentheses of its own.
    const std::string function = text.upTo(") > \x1b[");
    const auto beforeLine = function.rfind('(');
    record.function = function.substr(0, beforeLine);
    const std::string number = beforeLine == std::string::npos ? "" : function.substr(beforeLine + 1);
    record.line = std::atoi(number.c_str());
    record.colour = text.upTo("m[");
    record.signature = text.upTo(":" + number + "] ");
    record.body = text.remainder();
    return text.foundAll() ? std::optional(record) : std::nullopt;
}

std::string textOf(const LogRecord& record)
{
    return std::string(1, record.level) + " " + record.body;
}

} // namespace

void PrintTo(const LogRecord& record, std::ostream* stream)
{
    *stream << textOf(record) << " (" << record.file << ":" << record.line << ")";
}

LogCapture::LogCapture()
{
    savedStandardError = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    file = memfd_create("captured-log", MFD_CLOEXEC);
    if (savedStandardError < 0 || file < 0 || fcntl(file, F_SETFL, O_APPEND) < 0 ||
        dup2(file, STDERR_FILENO) < 0) {
        throw std::system_error(errno, std::generic_category(), "standard error cannot be redirected");
    }
}

LogCapture::~LogCapture()
{
    dup2(savedStandardError, STDERR_FILENO);
    close(savedStandardError);
    start = 0;
    checkAgainstCatalogue(records());
    if (testing::Test::HasFailure()) {
        for (const std::string& line : lines()) {
            std::cerr << line << '\n';
        }
    }
    close(file);
}

std::vector<std::string> LogCapture::lines() const
{
    std::string text;
    std::array<char, 65536> buffer{};
    off_t position = start;
    for (ssize_t length = 0; (length = pread(file, buffer.data(), buffer.size(), position)) > 0;
         position += length) {
        text.append(buffer.data(), static_cast<std::size_t>(length));
    }
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        result.push_back(line);
    }
    return result;
}

std::vector<LogRecord> LogCapture::records() const
{
    std::vector<LogRecord> result;
    for (const std::string& line : lines()) {
        if (auto record = parse(line)) {
            result.push_back(std::move(*record));
        }
    }
    return result;
}

std::vector<std::string> LogCapture::texts() const
{
    std::vector<std::string> result;
    for (const LogRecord& record : records()) {
        result.push_back(textOf(record));
    }
    return result;
}

std::vector<std::string> LogCapture::otherLines() const
{
    std::vector<std::string> result = lines();
    std::erase_if(result, [](const std::string& line) { return parse(line).has_value(); });
    return result;
}

bool LogCapture::waitForText(const std::string& text, std::chrono::milliseconds limit) const
{
    return eventually(
        [&] {
            const auto all = texts();
            return std::find(all.begin(), all.end(), text) != all.end();
        },
        limit);
}

void LogCapture::clear()
{
    start = lseek(file, 0, SEEK_END);
}

} // namespace ZoneTest
