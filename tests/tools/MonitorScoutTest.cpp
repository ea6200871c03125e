#include "Device/MonitorScout.h"

#include "tests/tools/WithFakeLxc.h"

#include <array>
#include <csignal>
#include <fstream>
#include <optional>
#include <spawn.h>
#include <stdexcept>

using namespace Zonectl;

namespace {

using Containers = std::set<std::string>;

/// A process that stands still, with the title of a container's monitor.
class StoppedMonitor
{
public:
    explicit StoppedMonitor(const std::string& container)
    {
        std::string title = "[lxc monitor] /var/lib/lxc " + container;
        std::string seconds = "60";
        const std::array<char*, 3> arguments = {title.data(), seconds.data(), nullptr};
        if (posix_spawn(&pid, "/bin/sleep", nullptr, nullptr, arguments.data(), environ) != 0) {
            throw std::runtime_error("/bin/sleep cannot be run");
        }
        kill(pid, SIGSTOP);
        waitpid(pid, nullptr, WUNTRACED);
    }
    ~StoppedMonitor()
    {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    StoppedMonitor(const StoppedMonitor&) = delete;
    StoppedMonitor& operator=(const StoppedMonitor&) = delete;

private:
    pid_t pid = -1;
};

class Scouting : public WithFakeLxc
{
protected:
    /// Asks and waits for the answer.
    [[nodiscard]] static Containers silentOf(MonitorScout& scout, const std::vector<std::string>& containers)
    {
        std::optional<Containers> answer;
        scout.ask(containers, [&answer](const Containers& silent) { answer = silent; });
        while (!answer) {
            g_main_context_iteration(nullptr, TRUE);
        }
        return *answer;
    }

    /// The only child of this process.
    [[nodiscard]] static pid_t child()
    {
        pid_t pid = -1;
        std::ifstream("/proc/thread-self/children") >> pid;
        if (pid <= 0) {
            throw std::runtime_error("there is no child");
        }
        return pid;
    }
};

} // namespace

TEST_F(Scouting, TellsWhoIsSilentEachTimeItIsAsked)
{
    MonitorScout scout;
    EXPECT_EQ(silentOf(scout, {"blue", "red"}), Containers());
    delay("state");
    EXPECT_EQ(silentOf(scout, {"blue", "red"}), (Containers{"blue", "red"}));
    EXPECT_EQ(silentOf(scout, {}), Containers());
    EXPECT_FALSE(scout.busy());
}

TEST_F(Scouting, AMonitorThatIsStoppedIsSilent)
{
    const StoppedMonitor blue("blue");
    MonitorScout scout;
    EXPECT_EQ(silentOf(scout, {"blue", "red"}), Containers{"blue"});
}

TEST_F(Scouting, AnswersInTheOrderOfTheQuestions)
{
    const StoppedMonitor blue("blue");
    MonitorScout scout;
    std::vector<Containers> answers;
    const auto take = [&answers](const Containers& silent) { answers.push_back(silent); };
    scout.ask({"blue"}, take);
    scout.ask({"red"}, take);
    while (scout.busy()) {
        g_main_context_iteration(nullptr, TRUE);
    }
    EXPECT_EQ(answers, (std::vector<Containers>{{"blue"}, {}}));
}

TEST_F(Scouting, WithoutItsProcessNobodyIsKnownToBeSilent)
{
    delay("state");
    MonitorScout scout;
    Containers answer = {"not yet"};
    scout.ask({"blue"}, [&answer](const Containers& silent) { answer = silent; });
    kill(child(), SIGKILL);
    while (scout.busy()) {
        g_main_context_iteration(nullptr, TRUE);
    }
    EXPECT_EQ(answer, Containers());
    EXPECT_EQ(silentOf(scout, {"blue"}), Containers());
}

TEST_F(Scouting, AnOpenQuestionEndsWithIt)
{
    delay("state");
    bool answered = false;
    {
        MonitorScout scout;
        scout.ask({"blue"}, [&answered](const Containers& /*silent*/) { answered = true; });
        EXPECT_TRUE(scout.busy());
    }
    EXPECT_FALSE(answered);
}
