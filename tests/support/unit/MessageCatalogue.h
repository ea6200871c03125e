#pragma once

#include "tests/support/unit/LogRecord.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace ZoneTest {

/// Says whether a message with the conversions %s, %d, %ld, %u and %zu may have given this text.
[[nodiscard]] bool couldBe(std::string_view format, std::string_view text);

/// The daemon's messages as tests/messages/catalogue.txt lists them.
class MessageCatalogue
{
public:
    /// The messages of such a file. Throws std::runtime_error when it cannot be read or a line is wrong.
    explicit MessageCatalogue(const std::string& path);

    /// What is wrong with a record that the daemon wrote: its level, colours, function, signature or text.
    /// Empty when nothing is, or when none of the catalogue's files wrote it.
    [[nodiscard]] std::string complaintAbout(const LogRecord& record) const;

private:
    struct Message
    {
        char level;
        std::string function;
        std::string format;
    };
    std::map<std::string, std::vector<Message>, std::less<>> messagesOfFile;
};

/// Holds all records against the project's catalogue; a record that is none of its messages fails the running
/// test. Notes where the others came from, a "FILE:LINE" each, in a new file in the folder that the
/// environment variable ZONE_MESSAGES_SEEN names, if there is one.
void checkAgainstCatalogue(const std::vector<LogRecord>& records);

} // namespace ZoneTest
