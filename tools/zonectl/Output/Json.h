#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Zonectl {

/// Writes one JSON document step by step; every step returns the writer.
class JsonWriter
{
public:
    enum class Layout
    {
        OneLine,
        Indented,
    };

    JsonWriter();
    ~JsonWriter();
    JsonWriter(const JsonWriter&) = delete;
    JsonWriter& operator=(const JsonWriter&) = delete;

    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    /// Names the value that follows.
    JsonWriter& name(const char* member);

    JsonWriter& text(std::string_view value);
    JsonWriter& number(std::int64_t value);
    JsonWriter& boolean(bool value);
    JsonWriter& null();
    /// The text, or null when there is none.
    JsonWriter& textOrNull(const std::optional<std::string>& value);

    /// The finished document, without a new-line at its end.
    [[nodiscard]] std::string finish(Layout layout);

private:
    struct Builder; ///< keeps the JSON library's headers out of this one
    std::unique_ptr<Builder> builder;
};

} // namespace Zonectl
