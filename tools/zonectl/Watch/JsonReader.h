#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Zonectl {

/// One JSON object, to be read member by member.
class JsonReader
{
public:
    /// Nothing when the text is not one JSON object.
    [[nodiscard]] static std::optional<JsonReader> parse(std::string_view line);
    JsonReader(JsonReader&&) noexcept;
    JsonReader& operator=(JsonReader&&) noexcept;
    ~JsonReader();

    /// The text of a member; nothing when there is no such member or it is no text.
    [[nodiscard]] std::optional<std::string> text(const char* member) const;
    /// The number of a member; nothing when there is no such member or it is no whole number.
    [[nodiscard]] std::optional<std::int64_t> number(const char* member) const;

private:
    struct Document; ///< keeps the JSON library's headers out of this one
    explicit JsonReader(std::unique_ptr<Document> parsed);
    std::unique_ptr<Document> document;
};

} // namespace Zonectl
