#include "Output/Json.h"

#include "Common/Handles.h"

#include <json-glib/json-glib.h>

namespace Zonectl {

struct JsonWriter::Builder
{
    std::unique_ptr<JsonBuilder, ZoneCore::FreeWith<g_object_unref>> owned{json_builder_new()};
    [[nodiscard]] JsonBuilder* get() const { return owned.get(); }
};

JsonWriter::JsonWriter() : builder(std::make_unique<Builder>()) {}

JsonWriter::~JsonWriter() = default;

JsonWriter& JsonWriter::beginObject()
{
    json_builder_begin_object(builder->get());
    return *this;
}

JsonWriter& JsonWriter::endObject()
{
    json_builder_end_object(builder->get());
    return *this;
}

JsonWriter& JsonWriter::beginArray()
{
    json_builder_begin_array(builder->get());
    return *this;
}

JsonWriter& JsonWriter::endArray()
{
    json_builder_end_array(builder->get());
    return *this;
}

JsonWriter& JsonWriter::name(const char* member)
{
    json_builder_set_member_name(builder->get(), member);
    return *this;
}

JsonWriter& JsonWriter::text(std::string_view value)
{
    // Paths and labels come from the disk and may hold any bytes; JSON is UTF-8.
    using StringPtr = std::unique_ptr<char, ZoneCore::FreeWith<g_free>>;
    const StringPtr valid(g_utf8_make_valid(value.data(), static_cast<gssize>(value.size())));
    json_builder_add_string_value(builder->get(), valid.get());
    return *this;
}

JsonWriter& JsonWriter::number(std::int64_t value)
{
    json_builder_add_int_value(builder->get(), value);
    return *this;
}

JsonWriter& JsonWriter::boolean(bool value)
{
    json_builder_add_boolean_value(builder->get(), value ? TRUE : FALSE);
    return *this;
}

JsonWriter& JsonWriter::null()
{
    json_builder_add_null_value(builder->get());
    return *this;
}

JsonWriter& JsonWriter::textOrNull(const std::optional<std::string>& value)
{
    return value ? text(*value) : null();
}

std::string JsonWriter::finish(Layout layout)
{
    using NodePtr = std::unique_ptr<JsonNode, ZoneCore::FreeWith<json_node_unref>>;
    using StringPtr = std::unique_ptr<char, ZoneCore::FreeWith<g_free>>;
    const NodePtr root(json_builder_get_root(builder->get()));
    const StringPtr document(json_to_string(root.get(), layout == Layout::Indented ? TRUE : FALSE));
    return document.get();
}

} // namespace Zonectl
