#include "Watch/JsonReader.h"

#include "Common/Handles.h"

#include <json-glib/json-glib.h>
#include <utility>

namespace Zonectl {

struct JsonReader::Document
{
    std::unique_ptr<JsonParser, ZoneCore::FreeWith<g_object_unref>> parser{json_parser_new()};

    /// The object; null when the document is none.
    [[nodiscard]] JsonObject* object() const
    {
        JsonNode* root = json_parser_get_root(parser.get());
        return root != nullptr && JSON_NODE_HOLDS_OBJECT(root) ? json_node_get_object(root) : nullptr;
    }

    /// The member when it is a value of that type; else null.
    [[nodiscard]] JsonNode* value(const char* member, GType type) const
    {
        JsonNode* node = json_object_get_member(object(), member);
        const bool fits =
            node != nullptr && JSON_NODE_HOLDS_VALUE(node) && json_node_get_value_type(node) == type;
        return fits ? node : nullptr;
    }
};

JsonReader::JsonReader(std::unique_ptr<Document> parsed) : document(std::move(parsed)) {}

JsonReader::JsonReader(JsonReader&&) noexcept = default;

JsonReader& JsonReader::operator=(JsonReader&&) noexcept = default;

JsonReader::~JsonReader() = default;

std::optional<JsonReader> JsonReader::parse(std::string_view line)
{
    auto document = std::make_unique<Document>();
    if (json_parser_load_from_data(document->parser.get(), line.data(), static_cast<gssize>(line.size()),
                                   nullptr) == FALSE ||
        document->object() == nullptr) {
        return std::nullopt;
    }
    return JsonReader(std::move(document));
}

std::optional<std::string> JsonReader::text(const char* member) const
{
    JsonNode* node = document->value(member, G_TYPE_STRING);
    return node == nullptr ? std::nullopt : std::optional<std::string>(json_node_get_string(node));
}

std::optional<std::int64_t> JsonReader::number(const char* member) const
{
    JsonNode* node = document->value(member, G_TYPE_INT64);
    return node == nullptr ? std::nullopt : std::optional<std::int64_t>(json_node_get_int(node));
}

} // namespace Zonectl
