#include "Daemon/BusClient.h"
#include "Daemon/BusLink.h"
#include "Daemon/ChangeSource.h"

namespace Zonectl {

namespace {

class SignalSource : public ChangeSource, private BusLink::Observer
{
public:
    SignalSource(BusLink& link, Listener& changeListener) : listener(changeListener) { link.observe(*this); }

    void start() override {} // the link tells

private:
    void busConnected(GDBusConnection* bus) override
    {
        subscription = std::make_unique<StateSubscription>(
            bus, [this](const std::string& zone, const std::string& state) {
                if (up) {
                    listener.changed(zone, state);
                }
            });
    }

    void daemonAppeared() override
    {
        up = true;
        wasUp = true;
        listener.sourceUp();
    }

    void daemonAbsent() override { leave("daemon", noDaemon().what()); }

    void busLost(const std::string& reason) override
    {
        subscription.reset();
        leave("bus", noBus(reason).what());
    }

    void leave(const char* who, const std::string& reason)
    {
        up = false;
        wasUp ? listener.sourceDown(who) : listener.sourceMissing(reason);
    }

    Listener& listener;
    std::unique_ptr<StateSubscription> subscription;
    bool up = false;
    bool wasUp = false;
};

} // namespace

std::unique_ptr<ChangeSource> makeSignalSource(BusLink& link, ChangeSource::Listener& listener)
{
    return std::make_unique<SignalSource>(link, listener);
}

} // namespace Zonectl
