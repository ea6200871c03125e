#pragma once

#include <memory>
#include <string>

namespace Zonectl {

class BusLink;

/// Where state changes come from. A source comes back by itself when the daemon does.
class ChangeSource
{
public:
    /// Whom it tells, on the main context that is the thread's default.
    class Listener
    {
    public:
        virtual ~Listener() = default;
        /// From now on no change is missed.
        virtual void sourceUp() = 0;
        /// It was up, and changes are missed now, since that one is away. May be told again, of another.
        virtual void sourceDown(const std::string& who) = 0;
        /// A try to come up failed; the next follows by itself.
        virtual void sourceMissing(const std::string& reason) = 0;
        /// Coming up makes no sense, however often it is tried.
        virtual void sourceRefused(const std::string& reason) = 0;
        /// Only between up and down.
        virtual void changed(const std::string& zone, const std::string& state) = 0;
    };

    virtual ~ChangeSource() = default;
    /// Makes the first try.
    virtual void start() = 0;
};

/// The signal on the bus; the link is started by its owner.
[[nodiscard]] std::unique_ptr<ChangeSource> makeSignalSource(BusLink& link, ChangeSource::Listener& listener);

/// The publisher's socket for containers below an LXC path.
[[nodiscard]] std::unique_ptr<ChangeSource> makeRecordSource(const std::string& lxcPath,
                                                             ChangeSource::Listener& listener);

} // namespace Zonectl
