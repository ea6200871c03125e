#include "Common/Handles.h"
#include "Daemon/ChangeSource.h"
#include "Daemon/SocketPeer.h"
#include "Daemon/StateRecord.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <glib-unix.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

namespace Zonectl {

namespace {

constexpr guint PAUSE_MILLISECONDS = 500;

class RecordSource : public ChangeSource
{
public:
    RecordSource(std::string abstractName, Listener& changeListener)
        : name(std::move(abstractName)), listener(changeListener)
    {}
    ~RecordSource() override
    {
        if (timer != 0) {
            g_source_remove(timer);
        }
        disconnect();
    }
    RecordSource(const RecordSource&) = delete;
    RecordSource& operator=(const RecordSource&) = delete;

    void start() override
    {
        if (!connect()) {
            const int error = errno;
            retryLater();
            listener.sourceMissing(std::string("the zone manager is not running (its socket: ") +
                                   std::strerror(error) + ")");
        } else if (const std::string reason = whyRefused(); !reason.empty()) {
            disconnect();
            listener.sourceRefused(reason);
        } else {
            watch = g_unix_fd_add(fd.get(), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR),
                                  &RecordSource::readableCallback, this);
            listener.sourceUp();
        }
    }

private:
    /// The first try may still meet the daemon that is ending; the stream's end tells.
    [[nodiscard]] bool connect()
    {
        fd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, name.data(), name.size()); // shorter than the field
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        return fd && ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) == 0;
    }

    /// Others than its own user's are closed at once, again and again.
    [[nodiscard]] std::string whyRefused() const
    {
        if (const std::string reason = whyNotTheDaemon(fd); !reason.empty()) {
            return "the zone manager's socket is not listened to: " + reason;
        }
        return listeningUser(fd) == geteuid()
                   ? std::string()
                   : "the zone manager takes subscribers of its own user only (are you root?)";
    }

    void disconnect()
    {
        if (watch != 0) {
            g_source_remove(watch);
            watch = 0;
        }
        fd.reset();
        assembler.reset();
    }

    void retryLater() { timer = g_timeout_add(PAUSE_MILLISECONDS, &RecordSource::retryCallback, this); }

    static gboolean retryCallback(gpointer data)
    {
        auto* source = static_cast<RecordSource*>(data);
        source->timer = 0;
        source->start();
        return G_SOURCE_REMOVE;
    }

    static gboolean readableCallback(gint /*descriptor*/, GIOCondition /*condition*/, gpointer data)
    {
        auto* source = static_cast<RecordSource*>(data);
        if (source->readSome()) {
            return G_SOURCE_CONTINUE;
        }
        source->watch = 0; // it ends with this return
        source->disconnect();
        source->retryLater();
        source->listener.sourceDown("daemon");
        return G_SOURCE_REMOVE;
    }

    /// False at the stream's end.
    [[nodiscard]] bool readSome()
    {
        std::array<char, 64 * RECORD_SIZE> buffer{};
        const ssize_t count = read(fd.get(), buffer.data(), buffer.size());
        if (count <= 0) {
            return count < 0 && (errno == EINTR || errno == EAGAIN);
        }
        assembler.feed({buffer.data(), static_cast<std::size_t>(count)}, [this](const StateRecord& record) {
            if (record.isState) {
                listener.changed(record.zone, record.state);
            }
        });
        return true;
    }

    std::string name;
    Listener& listener;
    ZoneCore::UniqueFd fd;
    RecordAssembler assembler;
    guint watch = 0;
    guint timer = 0;
};

} // namespace

std::unique_ptr<ChangeSource> makeRecordSource(const std::string& lxcPath, ChangeSource::Listener& listener)
{
    return std::make_unique<RecordSource>(subscribersAddress(lxcPath), listener);
}

} // namespace Zonectl
