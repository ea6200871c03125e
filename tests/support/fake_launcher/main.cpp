// A launcher of the tests' own: `fake_launcher start|stop NAME`, steered by the control directory of the fake
// liblxc.
//
// What it does is a script, one action a line, in containers/NAME/start or .../stop, or for all containers in
// launcher/start or launcher/stop; without one, a start or stop that works.
//   set FILE VALUE        containers/NAME/FILE gets VALUE; the word PID stands for the launcher's own process
//   id state WORD            set state WORD, and send the message that LXC would send message TYPE VALUE send
//   a monitor message: 0 with a state's number, 2 with a wait status sleep MILLISECONDS wait FILE wait until
//   FILE of the control directory exists, 30 seconds at most exit STATUS           end; 0 at the end of the
//   script signal NUMBER         end by this signal
//
// Before the script it appends a line of JSON to `launches`: its arguments, umask, signal masks and open
// descriptors.

#include "tests/support/fake_liblxc/ControlDirectory.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using FakeLxc::ControlDirectory;

namespace {

constexpr auto longestWait = std::chrono::seconds(30);
constexpr auto waitStep = std::chrono::milliseconds(5);

constexpr std::array<const char*, 8> stateWords = {"STOPPED",  "STARTING", "RUNNING", "STOPPING",
                                                   "ABORTING", "FREEZING", "FROZEN",  "THAWED"};

constexpr const char* defaultStart = "state STARTING\nset init_pid PID\nset running 1\nstate RUNNING\n";
constexpr const char* defaultStop =
    "state STOPPING\nmessage 2 0\nset init_pid -1\nset running 0\nstate STOPPED\n";

/// A message as LXC writes it into the monitor FIFO.
struct Message
{
    std::int32_t type;
    char name[256];
    std::int32_t value;
};
static_assert(sizeof(Message) == 264);

std::string quoted(const std::string& text)
{
    std::string result = "\"";
    for (const char character : text) {
        if (character == '"' || character == '\\') {
            result += '\\';
        }
        result += character;
    }
    return result + "\"";
}

/// The value of a line "KEY:\tVALUE" of /proc/self/status.
std::string statusValue(const std::string& key)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(key + ":", 0) == 0) {
            return line.substr(line.find_first_not_of("\t ", key.size() + 1));
        }
    }
    return "";
}

/// The open descriptors as a JSON object: number to target.
std::string openDescriptors()
{
    constexpr int highest = 256;
    std::string result;
    for (int fd = 0; fd < highest; ++fd) {
        std::array<char, 4096> target{};
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        if (readlink(link.c_str(), target.data(), target.size() - 1) > 0) {
            result += (result.empty() ? "" : ",") + quoted(std::to_string(fd)) + ":" + quoted(target.data());
        }
    }
    return "{" + result + "}";
}

/// The line for `launches`. Has to run first, while the launcher has opened nothing of its own.
std::string describeProcess(int argc, char** argv)
{
    const std::string descriptors = openDescriptors();
    const mode_t mask = umask(0);
    umask(mask);
    std::string arguments;
    for (int index = 0; index < argc; ++index) {
        arguments += (index == 0 ? "" : ",") + quoted(argv[index]);
    }
    return "{\"pid\":" + std::to_string(getpid()) + ",\"argv\":[" + arguments +
           "],\"umask\":" + std::to_string(mask) + ",\"blocked\":" + quoted(statusValue("SigBlk")) +
           ",\"ignored\":" + quoted(statusValue("SigIgn")) + ",\"fds\":" + descriptors + "}";
}

class Launcher
{
public:
    explicit Launcher(std::string containerName) : name(std::move(containerName)) {}

    /// Runs a script and returns the exit status.
    int run(const std::string& script) const
    {
        std::istringstream lines(script);
        for (std::string line; std::getline(lines, line);) {
            std::istringstream words(line);
            std::string action;
            words >> action;
            if (action == "exit") {
                int status = 0;
                words >> status;
                return status;
            }
            if (!action.empty() && !perform(action, words)) {
                std::cerr << "fake_launcher: cannot do: " << line << "\n";
                return EXIT_FAILURE;
            }
        }
        return EXIT_SUCCESS;
    }

private:
    bool perform(const std::string& action, std::istringstream& words) const
    {
        std::string word;
        if (action == "set") {
            std::string value;
            words >> word >> value;
            return set(word, value == "PID" ? std::to_string(getpid()) : value);
        }
        if (action == "state") {
            words >> word;
            return set("state", word) && sendState(word);
        }
        if (action == "wait") {
            words >> word;
            return waitFor(word);
        }
        int number = 0;
        words >> number;
        if (action == "message") {
            int value = 0;
            words >> value;
            return send(number, value);
        }
        if (action == "sleep") {
            std::this_thread::sleep_for(std::chrono::milliseconds(number));
            return true;
        }
        return action == "signal" && raise(number) == 0;
    }

    bool set(const std::string& file, const std::string& value) const
    {
        return control.write("containers/" + name + "/" + file, value);
    }

    bool sendState(const std::string& word) const
    {
        const auto* found = std::find(stateWords.begin(), stateWords.end(), word);
        return found != stateWords.end() && send(0, static_cast<int>(found - stateWords.begin()));
    }

    /// Like LXC, writes nothing when nobody reads.
    bool send(int type, int value) const
    {
        const std::string path = FakeLxc::fifoPath(control, control.text("lxcpath").value_or(""));
        const int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            return true;
        }
        Message message{};
        message.type = type;
        message.value = value;
        name.copy(message.name, sizeof(message.name) - 1);
        const bool complete = write(fd, &message, sizeof(message)) == static_cast<ssize_t>(sizeof(message));
        close(fd);
        return complete;
    }

    bool waitFor(const std::string& file) const
    {
        const auto deadline = std::chrono::steady_clock::now() + longestWait;
        while (!control.has(file)) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::sleep_for(waitStep);
        }
        return true;
    }

    ControlDirectory control;
    std::string name;
};

} // namespace

int main(int argc, char** argv)
{
    const std::string description = describeProcess(argc, argv);
    const std::string verb = argc == 3 ? argv[1] : "";
    if (verb != "start" && verb != "stop") {
        std::cerr << "usage: fake_launcher start|stop NAME\n";
        return 2;
    }
    const std::string name = argv[2];
    const ControlDirectory control;
    if (!control.append("launches", description)) {
        std::cerr << "fake_launcher: there is no control directory\n";
        return EXIT_FAILURE;
    }
    const auto own = control.text("containers/" + name + "/" + verb);
    const auto common = control.text("launcher/" + verb);
    const std::string otherwise = verb == "start" ? defaultStart : defaultStop;
    return Launcher(name).run(own ? *own : common.value_or(otherwise));
}
