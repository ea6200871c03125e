#include "tests/support/unit/MessageCatalogue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace ZoneTest {

namespace {

const std::map<char, std::string> colourOfLevel{
    {'D', "01;34;40"}, {'I', "01;32;40"}, {'W', "01;35;40"}, {'E', "01;31;40"}, {'F', "01;35;40"}};

bool names(const std::string& signature, const std::string& function)
{
    const auto position = signature.find(function + "(");
    return position != std::string::npos &&
           (position == 0 || signature.find_last_of(" :&*", position - 1) == position - 1);
}

/// Takes a number's digits off the text. @return false without any
bool takeNumber(std::string_view& text, bool isSigned)
{
    if (isSigned && text.starts_with('-')) {
        text.remove_prefix(1);
    }
    const auto end = std::min(text.find_first_not_of("0123456789"), text.size());
    text.remove_prefix(end);
    return end > 0;
}

} // namespace

bool couldBe(std::string_view format, std::string_view text)
{
    const auto literal = format.substr(0, format.find('%'));
    if (!text.starts_with(literal)) {
        return false;
    }
    text.remove_prefix(literal.size());
    if (literal.size() == format.size()) {
        return text.empty();
    }
    format.remove_prefix(format.find_first_not_of("lz", literal.size() + 1));
    const char conversion = format.front();
    format.remove_prefix(1);
    if (conversion != 's') {
        return takeNumber(text, conversion == 'd') && couldBe(format, text);
    }
    for (std::size_t length = 0; length <= text.size(); ++length) {
        if (couldBe(format, text.substr(length))) {
            return true;
        }
    }
    return false;
}

MessageCatalogue::MessageCatalogue(const std::string& path)
{
    std::ifstream stream(path);
    std::string file;
    for (std::string line; std::getline(stream, line);) {
        if (line.empty() || line.starts_with('#')) {
            continue;
        }
        if (line.front() != ' ') {
            file = line;
            continue;
        }
        const auto bar = line.find(" | ");
        if (file.empty() || bar == std::string::npos || bar < 5) {
            throw std::runtime_error(path + ": no message: " + line);
        }
        messagesOfFile[file].push_back({line[2], line.substr(4, bar - 4), line.substr(bar + 3)});
    }
    if (messagesOfFile.empty()) {
        throw std::runtime_error(path + ": cannot be read or is empty");
    }
}

std::string MessageCatalogue::complaintAbout(const LogRecord& record) const
{
    const auto messages = messagesOfFile.find(record.file);
    if (messages == messagesOfFile.end()) {
        return {};
    }
    const bool known =
        std::any_of(messages->second.begin(), messages->second.end(), [&](const Message& message) {
            return message.level == record.level && message.function == record.function &&
                   couldBe(message.format, record.body);
        });
    if (!known) {
        return "the catalogue has no such message at this level of this function";
    }
    if (record.colour != colourOfLevel.at(record.level)) {
        return "these are not the colours of the level: " + record.colour;
    }
    if (!names(record.signature, record.function)) {
        return "this is not the signature of the function: " + record.signature;
    }
    return {};
}

void checkAgainstCatalogue(const std::vector<LogRecord>& records)
{
    static const MessageCatalogue catalogue(ZONE_MESSAGE_CATALOGUE);
    std::set<std::string> seen;
    for (const LogRecord& record : records) {
        const std::string complaint = catalogue.complaintAbout(record);
        if (complaint.empty()) {
            seen.insert(record.file + ":" + std::to_string(record.line));
        } else {
            ADD_FAILURE() << record.file << ":" << record.line << " " << record.function
                          << "() wrote at level " << record.level << ": " << record.body << "\n"
                          << complaint;
        }
    }
    const char* folder = std::getenv("ZONE_MESSAGES_SEEN");
    if (folder == nullptr || seen.empty()) {
        return;
    }
    std::string path = std::string(folder) + "/unit-XXXXXX";
    const int descriptor = mkstemp(path.data());
    ASSERT_GE(descriptor, 0) << path;
    for (const std::string& place : seen) {
        ASSERT_GT(dprintf(descriptor, "%s\n", place.c_str()), 0);
    }
    close(descriptor);
}

} // namespace ZoneTest
