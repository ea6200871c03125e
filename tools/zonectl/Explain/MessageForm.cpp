#include "Explain/MessageForm.h"

namespace Zonectl {

namespace {

constexpr std::string_view CONVERSION_ENDS = "sdu";

/// The length of the conversion at the front, such as "%s" and "%zu".
[[nodiscard]] std::size_t conversionLength(std::string_view form)
{
    const auto end = form.find_first_of(CONVERSION_ENDS, 1);
    return end == std::string_view::npos ? form.size() : end + 1;
}

} // namespace

bool matchesForm(std::string_view form, std::string_view message, MessageValues& values)
{
    values.clear();
    const auto first = form.find('%');
    if (!message.starts_with(form.substr(0, first))) {
        return false;
    }
    if (first == std::string_view::npos) {
        return message.size() == form.size();
    }
    form.remove_prefix(first);
    message.remove_prefix(first);
    while (!form.empty()) {
        form.remove_prefix(conversionLength(form));
        const auto next = form.find('%');
        const std::string_view literal = form.substr(0, next);
        // The last text of the form ends the message; what comes before it may hold it as well.
        const bool last = next == std::string_view::npos;
        if (last && !message.ends_with(literal)) {
            return false;
        }
        const auto place = last ? message.size() - literal.size() : message.find(literal);
        if (place == std::string_view::npos) {
            return false;
        }
        values.emplace_back(message.substr(0, place));
        message.remove_prefix(place + literal.size());
        form.remove_prefix(literal.size());
    }
    return true;
}

} // namespace Zonectl
