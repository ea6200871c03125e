#include "Device/BusPolicy.h"

#include "Common/Handles.h"
#include "Daemon/Names.h"

#include <array>
#include <glib.h>

namespace Zonectl {

namespace {

constexpr std::array DIRECTORIES = {"/usr/share/dbus-1/system.d", "/etc/dbus-1/system.d"};

using MarkupParser = std::unique_ptr<GMarkupParseContext, ZoneCore::FreeWith<g_markup_parse_context_free>>;

/// What the parser keeps between the elements of a file.
struct Reading
{
    BusPolicy& policy;
    bool forRoot = false; ///< inside of <policy user="root">
    bool forAll = false;  ///< inside of a policy for everybody
};

/// The attributes of one element.
class Attributes
{
public:
    Attributes(const gchar** attributeNames, const gchar** attributeValues)
        : names(attributeNames), values(attributeValues)
    {}

    /// Empty when there is no such attribute.
    [[nodiscard]] std::string_view operator[](std::string_view name) const
    {
        for (std::size_t i = 0; names[i] != nullptr; ++i) {
            if (name == names[i]) {
                return values[i];
            }
        }
        return {};
    }

private:
    const gchar** names;
    const gchar** values;
};

void beginPolicy(Reading& reading, const Attributes& attributes)
{
    const std::string_view user = attributes["user"];
    reading.forRoot = user == "root" || user == "0";
    reading.forAll = !attributes["context"].empty() || user == "*";
}

void takeAllow(Reading& reading, const Attributes& attributes)
{
    const std::string_view own = attributes["own"];
    if (own == Names::BUS_NAME || own == "*") {
        reading.policy.rootMayOwn |= reading.forRoot || reading.forAll;
    }
    const std::string_view interface = attributes["send_interface"];
    if (reading.forAll && attributes["send_destination"] == Names::BUS_NAME &&
        (interface.empty() || interface == Names::INTERFACE)) {
        reading.policy.othersMayCall = true;
    }
}

void beginElement(GMarkupParseContext* /*context*/, const gchar* element, const gchar** names,
                  const gchar** values, gpointer data, GError** /*error*/)
{
    auto& reading = *static_cast<Reading*>(data);
    const Attributes attributes(names, values);
    if (std::string_view(element) == "policy") {
        beginPolicy(reading, attributes);
    } else if (std::string_view(element) == "allow") {
        takeAllow(reading, attributes);
    }
}

} // namespace

void readPolicyText(std::string_view text, BusPolicy& policy)
{
    constexpr GMarkupParser CALLBACKS = {beginElement, nullptr, nullptr, nullptr, nullptr};
    BusPolicy found = policy;
    Reading reading{.policy = found};
    const MarkupParser parser(
        g_markup_parse_context_new(&CALLBACKS, G_MARKUP_DEFAULT_FLAGS, &reading, nullptr));
    if (g_markup_parse_context_parse(parser.get(), text.data(), static_cast<gssize>(text.size()), nullptr) !=
            FALSE &&
        g_markup_parse_context_end_parse(parser.get(), nullptr) != FALSE) {
        policy = found;
    }
}

BusPolicy readBusPolicy(const Machine& machine)
{
    BusPolicy policy;
    for (const char* directory : DIRECTORIES) {
        for (const std::string& name : machine.entries(directory)) {
            const std::string path = std::string(directory) + "/" + name;
            const std::string text = name.ends_with(".conf") ? machine.read(path).value_or("") : "";
            if (text.find(Names::BUS_NAME) != std::string::npos) {
                policy.files.push_back(path);
                readPolicyText(text, policy);
            }
        }
    }
    return policy;
}

} // namespace Zonectl
