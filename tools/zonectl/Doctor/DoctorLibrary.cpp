#include "Daemon/Names.h"
#include "Device/LxcLibrary.h"
#include "Doctor/Examination.h"

#include <algorithm>

namespace Zonectl {

namespace {

constexpr const char* SUBJECT = "liblxc";
constexpr const char* INSTALL = "install the liblxc that comes with the zone manager, or the device's own";

[[nodiscard]] std::string joined(const std::vector<std::string>& parts)
{
    std::string text;
    for (const std::string& part : parts) {
        text += (text.empty() ? "" : ", ") + part;
    }
    return text;
}

/// What the daemon writes of the first container when its library answers no kind.
[[nodiscard]] std::string refusalOfTheFirst(const ContainerListing& listing)
{
    return listing.containers.empty()
               ? std::string()
               : "Failed to create the zone object..." + listing.containers.front().name;
}

// cppcheck-suppress constParameter; it does not see through the designated initialisers of add()
void addProblem(Examination& examination, std::string_view id, std::string text, std::string message = "")
{
    examination.add({.id = id,
                     .subject = SUBJECT,
                     .severity = Severity::Problem,
                     .text = std::move(text),
                     .remedy = INSTALL,
                     .message = std::move(message)});
}

/// Nothing is run of another system, and nobody but root sees root's containers.
// cppcheck-suppress constParameter; it does not see through the designated initialisers of add()
void checkUntried(Examination& examination, const std::string& path)
{
    examination.add(
        {.id = FindingIds::LIBRARY_UNTRIED,
         .subject = SUBJECT,
         .severity = Severity::Note,
         .text = path + (examination.machine.hidden(path) ? " cannot be seen by this user" : " is there") +
                 "; it is tried only on the running machine, by root"});
}

/// The containers whose file names a kind that the library does not tell.
[[nodiscard]] std::vector<std::string> withUntoldKind(const Examination& examination)
{
    std::vector<std::string> names;
    for (const ContainerInfo& container : examination.listing.containers) {
        if (container.kindIsUntold()) {
            names.push_back(container.name);
        }
    }
    return names;
}

void tryLibrary(Examination& examination, const std::string& path)
{
    const LxcLibrary library(path);
    if (!library.error().empty()) {
        addProblem(examination, FindingIds::LIBRARY_UNLOADABLE,
                   "cannot be loaded, and so the daemon cannot: " + library.error());
        return;
    }
    if (!library.missing().empty()) {
        addProblem(examination, FindingIds::LIBRARY_FUNCTIONS,
                   path + " lacks " + joined(library.missing()) + ": the daemon ends at start-up");
        return;
    }
    if (const std::string error = library.tryMonitorFunctions(examination.listing.lxcPath); !error.empty()) {
        addProblem(examination, FindingIds::LIBRARY_MONITOR, path + ": " + error);
        return;
    }
    if (const std::vector<std::string> names = withUntoldKind(examination); !names.empty()) {
        addProblem(examination, FindingIds::LIBRARY_KIND,
                   path + " does not answer lxc.container_type for " + joined(names) +
                       ", and so the daemon refuses what has a kind",
                   "Failed to create the zone object..." + names.front());
        return;
    }
    examination.addOk(FindingIds::LIBRARY, SUBJECT, path + " has all that is needed");
}

} // namespace

void checkLibrary(Examination& examination)
{
    const std::string path = Names::LXC_LIBRARY;
    if (!examination.machine.exists(path) && !examination.machine.hidden(path)) {
        addProblem(examination, FindingIds::LIBRARY_MISSING,
                   path +
                       " is missing: the daemon is loaded with the distribution's liblxc, if there is one, "
                       "which tells no container's kind (-22); all are refused, and the daemon ends with "
                       "status 255",
                   refusalOfTheFirst(examination.listing));
    } else if (libraryMayBeAsked(examination.machine)) {
        tryLibrary(examination, path);
    } else {
        checkUntried(examination, path);
    }
}

} // namespace Zonectl
