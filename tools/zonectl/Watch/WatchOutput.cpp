#include "Watch/WatchOutput.h"

#include "Explain/StoryTime.h"
#include "Output/Json.h"

namespace Zonectl {

namespace {

/// Whether a state was found out without the daemon.
[[nodiscard]] bool isFromProc(const WatchEvent& event)
{
    return event.kind == WatchEvent::Kind::Present && !event.state.empty() && !event.note.empty();
}

[[nodiscard]] std::string presentText(const WatchEvent& event, const Style& style)
{
    if (event.state.empty()) {
        return style.paint(Tone::Muted, "unknown (" + event.note + ")");
    }
    if (isFromProc(event)) {
        return style.paint(Tone::Warning, printable(event.state) + "?") +
               style.paint(Tone::Muted, " (present; " + event.note + ")");
    }
    return style.paint(stateTone(event.state), printable(event.state)) +
           style.paint(Tone::Muted, " (present)");
}

} // namespace

std::string watchText(const WatchEvent& event, Micros wall, const Style& style)
{
    const std::string begin = style.paint(Tone::Muted, isoText(wall)) + "  " + printable(event.zone) + "  ";
    switch (event.kind) {
    case WatchEvent::Kind::Present:
        return begin + presentText(event, style) + "\n";
    case WatchEvent::Kind::State:
        return begin + style.paint(stateTone(event.state), printable(event.state)) + "\n";
    case WatchEvent::Kind::Gap:
        return style.paint(Tone::Warning, "--- gap: the " + event.note + " was away for " +
                                              durationText(event.length) + " ---") +
               "\n";
    case WatchEvent::Kind::End:
        break;
    }
    return {};
}

std::string watchJson(const WatchEvent& event, Micros wall, const std::string& source)
{
    JsonWriter json;
    json.beginObject().name("event");
    switch (event.kind) {
    case WatchEvent::Kind::Present:
    case WatchEvent::Kind::State:
        json.text(event.kind == WatchEvent::Kind::State ? "state" : "present");
        json.name("time").text(isoText(wall)).name("name").text(event.zone).name("state");
        event.state.empty() ? json.null() : json.text(event.state);
        if (!event.note.empty()) {
            json.name("note").text(event.note);
        }
        break;
    case WatchEvent::Kind::Gap:
        json.text("gap").name("time").text(isoText(wall)).name("reason").text(event.note);
        json.name("microseconds").number(event.length);
        break;
    case WatchEvent::Kind::End:
        return {};
    }
    const std::string asked = isFromProc(event) ? "proc" : "query";
    json.name("source").text(event.kind == WatchEvent::Kind::Present ? asked : source);
    return json.endObject().finish(JsonWriter::Layout::OneLine) + "\n";
}

} // namespace Zonectl
