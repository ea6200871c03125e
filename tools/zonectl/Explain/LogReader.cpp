#include "Explain/LogReader.h"

#include "Common/Handles.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <json-glib/json-glib.h>

namespace Zonectl {

namespace {

using DateTimePtr = std::unique_ptr<GDateTime, ZoneCore::FreeWith<g_date_time_unref>>;
using TimeZonePtr = std::unique_ptr<GTimeZone, ZoneCore::FreeWith<g_time_zone_unref>>;
using ParserPtr = std::unique_ptr<JsonParser, ZoneCore::FreeWith<g_object_unref>>;

constexpr std::string_view TAG = "ZONE_MANAGER";
constexpr std::string_view LEVELS = "DIWEF";
constexpr std::string_view BLANKS = " \t";
/// How a colour ends, and what is left of its escape when it was made printable on the way.
constexpr std::array<std::string_view, 4> COLOUR_RESETS = {"\x1b[0m", "#033[0m", "^[[0m", "[0m"};
/// No clock of a machine is later; so no difference of two times overflows.
constexpr LogTime LATEST = LogTime{1} << 60U;
/// "Nov 21 15:58:23"
constexpr std::size_t SHORT_STAMP_LENGTH = 15;

/// What is left of a text that is read from its front.
class Cursor
{
public:
    explicit Cursor(std::string_view text) : rest(text) {}

    [[nodiscard]] std::string_view left() const { return rest; }

    bool skip(std::string_view text)
    {
        if (!rest.starts_with(text)) {
            return false;
        }
        rest.remove_prefix(text.size());
        return true;
    }

    /// The text before the next `end`, which is skipped too; nothing when there is none.
    std::optional<std::string_view> upTo(std::string_view end)
    {
        const auto place = rest.find(end);
        if (place == std::string_view::npos) {
            return std::nullopt;
        }
        const std::string_view text = rest.substr(0, place);
        rest.remove_prefix(place + end.size());
        return text;
    }

    std::optional<int> number()
    {
        int value = 0;
        const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
        if (error != std::errc{}) {
            return std::nullopt;
        }
        rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
        return value;
    }

private:
    std::string_view rest;
};

/// By the foreground colour; fatal and warning share theirs.
[[nodiscard]] char levelOfColour(std::string_view colours)
{
    constexpr std::array<std::pair<std::string_view, char>, 4> LEVEL_OF_COLOUR = {
        {{";34;", 'D'}, {";32;", 'I'}, {";35;", 'W'}, {";31;", 'E'}}};
    for (const auto& [colour, level] : LEVEL_OF_COLOUR) {
        if (colours.find(colour) != std::string_view::npos) {
            return level;
        }
    }
    return 'I';
}

/// Reads "Zone.cpp: handleStart(12) > COLOUR[SIGNATURE:12] MESSAGE RESET" into the record.
bool readOrigin(std::string_view text, LogRecord& record)
{
    Cursor cursor(text);
    const auto file = cursor.upTo(": ");
    const auto origin = cursor.upTo(") > ");
    if (!file || !origin) {
        return false;
    }
    // The names of lambdas and operators hold parentheses of their own.
    const auto parenthesis = origin->rfind('(');
    if (parenthesis == std::string_view::npos || origin->find(": ") != std::string_view::npos) {
        return false;
    }
    const std::string line(origin->substr(parenthesis + 1));
    // The signature may hold brackets; the line number, which stands there twice, ends it.
    const auto colours = cursor.upTo(":" + line + "] ");
    if (!colours) {
        return false;
    }
    std::string_view message = cursor.left();
    for (const std::string_view reset : COLOUR_RESETS) {
        if (message.ends_with(reset)) {
            message.remove_suffix(reset.size());
            break;
        }
    }
    record.level = levelOfColour(*colours);
    record.function = origin->substr(0, parenthesis);
    record.message = message;
    return true;
}

/// Reads "(PID:TID): ", "[PID]: " or ": ", which stand behind the tag.
bool readIds(Cursor& cursor, LogRecord& record)
{
    if (cursor.skip(": ")) {
        return true;
    }
    const bool console = cursor.skip("(");
    if (!console && !cursor.skip("[")) {
        return false;
    }
    const auto pid = cursor.number();
    const auto tid = !console ? 0 : cursor.skip(":") ? cursor.number() : std::nullopt;
    if (!pid || !tid || !cursor.skip(console ? "): " : "]: ")) {
        return false;
    }
    record.pid = *pid;
    record.tid = *tid;
    return true;
}

[[nodiscard]] LogTime timeOf(GDateTime* moment)
{
    return g_date_time_to_unix(moment) * LOG_SECOND + g_date_time_get_microsecond(moment);
}

/// The moment that this text names in the given year; null when that year has no such moment.
[[nodiscard]] DateTimePtr momentInYear(int year, std::string_view stamp)
{
    constexpr std::string_view MONTHS = "JanFebMarAprMayJunJulAugSepOctNovDec";
    const auto month = MONTHS.find(stamp.substr(0, 3));
    Cursor cursor(stamp.substr(3));
    while (cursor.skip(" ")) {
    }
    const auto day = cursor.number();
    const auto hour = cursor.skip(" ") ? cursor.number() : std::nullopt;
    const auto minute = cursor.skip(":") ? cursor.number() : std::nullopt;
    const auto second = cursor.skip(":") ? cursor.number() : std::nullopt;
    if (month == std::string_view::npos || month % 3 != 0 || !day || !hour || !minute || !second) {
        return nullptr;
    }
    return DateTimePtr(
        g_date_time_new_local(year, static_cast<int>(month / 3) + 1, *day, *hour, *minute, *second));
}

/// A stamp without a year is of the last year that it does not put into the future; a day is granted to
/// clocks.
[[nodiscard]] std::optional<LogTime> shortStamp(std::string_view prefix)
{
    if (prefix.size() < SHORT_STAMP_LENGTH) {
        return std::nullopt;
    }
    const DateTimePtr now(g_date_time_new_now_local());
    const DateTimePtr latest(g_date_time_add_days(now.get(), 1));
    const std::string_view stamp = prefix.substr(0, SHORT_STAMP_LENGTH);
    for (const int yearsAgo : {0, 1}) {
        const DateTimePtr moment = momentInYear(g_date_time_get_year(latest.get()) - yearsAgo, stamp);
        if (moment && g_date_time_compare(moment.get(), latest.get()) <= 0) {
            return timeOf(moment.get());
        }
    }
    return std::nullopt;
}

[[nodiscard]] std::optional<LogTime> isoStamp(std::string_view text)
{
    const TimeZonePtr local(g_time_zone_new_local());
    const DateTimePtr moment(g_date_time_new_from_iso8601(std::string(text).c_str(), local.get()));
    return moment ? std::optional(timeOf(moment.get())) : std::nullopt;
}

[[nodiscard]] std::optional<LogTime> timeIn(std::string_view prefix)
{
    const std::string_view first = prefix.substr(0, prefix.find_first_of(BLANKS));
    if (const auto time = isoStamp(first)) {
        return time;
    }
    // Date and time with a blank between them.
    if (const auto second = prefix.find_first_of(BLANKS, first.size() + 1); !first.empty()) {
        if (const auto time = isoStamp(prefix.substr(0, second))) {
            return time;
        }
    }
    return shortStamp(prefix);
}

[[nodiscard]] std::optional<LogRecord> readTextRecord(std::string_view line)
{
    for (auto place = line.find(TAG); place != std::string_view::npos; place = line.find(TAG, place + 1)) {
        LogRecord record;
        Cursor cursor(line.substr(place + TAG.size()));
        if (!readIds(cursor, record) || !readOrigin(cursor.left(), record)) {
            continue;
        }
        std::size_t prefixLength = place;
        if (place >= 2 && line[place - 1] == '/' && LEVELS.find(line[place - 2]) != std::string_view::npos) {
            prefixLength = place - 2;
            record.level = line[prefixLength];
        }
        record.time = timeIn(line.substr(0, prefixLength));
        return record;
    }
    return std::nullopt;
}

/// A field of the journal: a string, or the numbers of its bytes when some of them are not printable.
[[nodiscard]] std::optional<std::string> journalField(JsonObject* object, const char* name)
{
    JsonNode* node = json_object_get_member(object, name);
    if (node == nullptr) {
        return std::nullopt;
    }
    if (JSON_NODE_HOLDS_VALUE(node) && json_node_get_value_type(node) == G_TYPE_STRING) {
        return json_node_get_string(node);
    }
    if (!JSON_NODE_HOLDS_ARRAY(node)) {
        return std::nullopt;
    }
    std::string text;
    JsonArray* bytes = json_node_get_array(node);
    for (guint index = 0; index < json_array_get_length(bytes); ++index) {
        JsonNode* element = json_array_get_element(bytes, index);
        if (!JSON_NODE_HOLDS_VALUE(element)) {
            return std::nullopt;
        }
        text += static_cast<char>(json_node_get_int(element));
    }
    return text;
}

[[nodiscard]] std::optional<LogTime> numberField(JsonObject* object, const char* name)
{
    const auto text = journalField(object, name);
    if (!text) {
        return std::nullopt;
    }
    LogTime value = 0;
    const char* const end = text->data() + text->size();
    const auto read = std::from_chars(text->data(), end, value);
    if (read.ec != std::errc{} || read.ptr != end) {
        return std::nullopt;
    }
    return value;
}

/// Whether arrays and objects may stand in each other so deep that the parser, which follows each with a call
/// of its own, comes to the end of the stack. Those in texts and comments are counted too, which is never too
/// few; a journal's record has an object, some arrays, and what its message holds.
[[nodiscard]] bool mayNestTooDeep(std::string_view json)
{
    constexpr std::ptrdiff_t MOST = 1000;
    return std::count_if(json.begin(), json.end(), [](char c) { return c == '{' || c == '['; }) > MOST;
}

[[nodiscard]] std::optional<LogRecord> readJsonRecord(std::string_view line)
{
    if (mayNestTooDeep(line)) {
        return std::nullopt;
    }
    const ParserPtr parser(json_parser_new());
    if (json_parser_load_from_data(parser.get(), line.data(), static_cast<gssize>(line.size()), nullptr) ==
        FALSE) {
        return std::nullopt;
    }
    JsonNode* root = json_parser_get_root(parser.get());
    if (root == nullptr || !JSON_NODE_HOLDS_OBJECT(root)) {
        return std::nullopt;
    }
    JsonObject* object = json_node_get_object(root);
    const auto message = journalField(object, "MESSAGE");
    if (!message) {
        return std::nullopt;
    }
    if (journalField(object, "SYSLOG_IDENTIFIER") != TAG) { // what the journal caught from standard error
        auto record = readTextRecord(*message);
        if (record) {
            record->time = numberField(object, "__REALTIME_TIMESTAMP");
        }
        return record;
    }
    LogRecord record;
    if (!readOrigin(*message, record)) {
        return std::nullopt;
    }
    record.time = numberField(object, "__REALTIME_TIMESTAMP");
    record.pid = static_cast<int>(numberField(object, "_PID").value_or(0));
    record.tid = static_cast<int>(numberField(object, "TID").value_or(0));
    if (numberField(object, "PRIORITY") == 2) { // which the colour does not tell from a warning
        record.level = 'F';
    }
    return record;
}

} // namespace

std::optional<LogRecord> readLogRecord(std::string_view line)
{
    auto record = line.starts_with('{') ? readJsonRecord(line) : readTextRecord(line);
    if (record && record->time && (*record->time < 0 || *record->time > LATEST)) {
        record->time.reset();
    }
    return record;
}

} // namespace Zonectl
