#pragma once

#include "CommandLine/Failure.h"

#include <string>
#include <string_view>

namespace Zonectl {

/// What somebody wants of a zone.
enum class Errand
{
    Start,
    Stop,
    Unfreeze,
    Wait, ///< for a state that others bring about
};

/// The word of an errand, which is the command's name.
[[nodiscard]] std::string_view errandWord(Errand errand);

/// One zone on its way to a state: what was seen of it, and how that is to be understood.
class Pursuit
{
public:
    /// For a request; the wanted state is the one in which it has been carried out.
    Pursuit(std::string zoneName, Errand request);
    /// For a state that is waited for.
    Pursuit(std::string zoneName, std::string wantedState);

    /// The state before anything was asked for. It may already be the wanted one, or one in which the request
    /// cannot succeed. The remark says where a state is from that is not the daemon's word.
    void begin(const std::string& state, const std::string& remark = "");
    /// A change that the daemon tells. The wanted state counts even when another one follows at once.
    void change(const std::string& state);
    /// A state that was asked for: it may be older than the last change that was told, so nothing fails by
    /// it.
    void observe(const std::string& state);
    /// Gives it up.
    void fail(ExitStatus status, const std::string& reason);
    void noteQueued() { requestQueued = true; }

    [[nodiscard]] bool open() const { return !reached && failureStatus == EXIT_OK; }
    [[nodiscard]] bool done() const { return reached; }
    [[nodiscard]] bool queued() const { return requestQueued; }
    /// EXIT_OK as long as it has not failed.
    [[nodiscard]] ExitStatus status() const { return failureStatus; }
    /// Why it failed, or what is to be known beside a success; may be empty.
    [[nodiscard]] const std::string& reason() const { return explanation; }
    /// The last state that was seen; empty when none was.
    [[nodiscard]] const std::string& lastState() const { return last; }
    [[nodiscard]] const std::string& name() const { return zone; }
    [[nodiscard]] const std::string& goal() const { return wanted; }
    [[nodiscard]] Errand errand() const { return task; }

private:
    void reach(const std::string& state);

    std::string zone;
    Errand task;
    std::string wanted;
    std::string last;
    std::string explanation;
    ExitStatus failureStatus = EXIT_OK;
    bool reached = false;
    bool requestQueued = false;
    bool starting = false; ///< the launcher's work has been seen
};

} // namespace Zonectl
