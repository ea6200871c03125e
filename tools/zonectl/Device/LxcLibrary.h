#pragma once

#include "Device/Containers.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Zonectl {

/// The liblxc that the daemon uses, loaded from its fixed path. That it cannot be loaded is told by `error`.
class LxcLibrary
{
public:
    /// Loads the library and looks up what the daemon needs of it.
    explicit LxcLibrary(const std::string& path);
    ~LxcLibrary();
    LxcLibrary(const LxcLibrary&) = delete;
    LxcLibrary& operator=(const LxcLibrary&) = delete;

    /// Why the library could not be loaded; empty when it was.
    [[nodiscard]] const std::string& error() const { return loadError; }
    /// The functions that the daemon needs and the library does not have.
    [[nodiscard]] const std::vector<std::string>& missing() const { return missingFunctions; }
    /// Whether containers can be listed through the library.
    [[nodiscard]] bool usable() const { return loadError.empty() && missingFunctions.empty(); }

    /// Calls the monitor's functions the way the daemon does; the text says what went wrong, empty when
    /// nothing did. To be called on a usable library only.
    [[nodiscard]] std::string tryMonitorFunctions(const std::string& lxcPath) const;

    /// Lists the containers exactly as the daemon gets to see them. Throws Failure when the library does not
    /// come to an end with them. To be called on a usable library only.
    [[nodiscard]] ContainerListing list(const Machine& machine) const;

    /// Asks a container's monitor process for the state, as the daemon does: without a limit, for liblxc
    /// waits as long as that process lets it. Calls `beforeAsking` right before that. False when the
    /// container is not listed. To be called on a usable library only.
    [[nodiscard]] bool askState(const std::string& container,
                                const std::function<void()>& beforeAsking) const;

private:
    template <typename Function>
    [[nodiscard]] Function function(const char* name) const;
    [[nodiscard]] std::string describeAll(const std::string& lxcPath) const;
    [[nodiscard]] bool isDefined(const char* lxcPath, const std::string& name) const;

    void* handle = nullptr;
    std::string loadError;
    std::vector<std::string> missingFunctions;
};

} // namespace Zonectl
