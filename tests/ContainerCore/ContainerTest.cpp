#include "ContainerCore/Container.h"

#include "Common/Handles.h"
#include "Common/ProcessSignals.h"
#include "tests/ContainerCore/FakeContainer.h"
#include "tests/ContainerCore/LaunchGuard.h"
#include "tests/ContainerCore/Victim.h"
#include "tests/support/unit/ChildProcess.h"
#include "tests/support/unit/LogCapture.h"
#include "tests/support/unit/PrivateRoot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using ContainerCore::Container;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using ZoneTest::FakeContainer;
using ZoneTest::LogCapture;
using ZoneTest::readFile;
using ZoneTest::statusOfChild;
using ZoneTest::Victim;
using ZoneTest::writeFile;

namespace {

constexpr const char* LAUNCHER = "/zone/config/zone-launcher";
constexpr const char* REPORT = "/tmp/launcher-report";
constexpr const char* PID_FILE = "/var/run/lxc/pid/zone.pid";

} // namespace

extern "C" {

int lxc_container_put(lxc_container* container)
{
    ++FakeContainer::of(container).puts;
    return 0;
}
}

namespace {

class ContainerTest : public ZoneTest::InPrivateRoot
{
protected:
    ContainerTest() { container->setHandle(&lxc); }

    LogCapture log;
    FakeContainer lxc{"zone"};
    std::unique_ptr<Container> container = std::make_unique<Container>();
};

/// With a launcher in its place, and directories for what an earlier run left.
class ContainerLaunch : public ContainerTest
{
protected:
    void SetUp() override
    {
        ContainerTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        std::filesystem::create_directories("/zone/config");
        std::filesystem::create_directories("/var/run/lxc/pid");
        std::filesystem::remove(PID_FILE);
        std::filesystem::remove(REPORT);
    }

    static void installLauncher(const std::string& commands)
    {
        std::filesystem::remove(LAUNCHER);
        writeFile(LAUNCHER, "#!/bin/sh\n" + commands);
        std::filesystem::permissions(LAUNCHER, std::filesystem::perms::owner_all);
    }

    static void removeLauncher() { std::filesystem::remove(LAUNCHER); }
};

} // namespace

// The handle

TEST_F(ContainerTest, DestroyingAnEmptyOneOnlyLogs)
{
    auto empty = std::make_unique<Container>();
    EXPECT_EQ(empty->getHandle(), nullptr);
    empty.reset();
    EXPECT_THAT(log.texts(), ElementsAre("I Container object is destroyed..."));
}

TEST_F(ContainerTest, DestroyingGivesTheReferenceBack)
{
    container.reset();
    EXPECT_EQ(lxc.puts, 1);
    EXPECT_THAT(log.texts(),
                ElementsAre("I thread count of container...[3]", "I Container object is destroyed..."));
}

TEST_F(ContainerTest, PassesLiblxcsAnswersOnInSilence)
{
    for (const bool answer : {true, false}) {
        lxc.answer = answer;
        lxc.running = answer;
        EXPECT_EQ(container->mayControl(), answer);
        EXPECT_EQ(container->freeze(), answer);
        EXPECT_EQ(container->unfreeze(), answer);
        EXPECT_EQ(container->isRunning(), answer);
    }
    for (const pid_t pid : {4711, -1}) {
        lxc.initPid = pid;
        EXPECT_EQ(container->initPID(), pid);
    }
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerTest, AnUnreadableStateIsNone)
{
    EXPECT_EQ(container->state(), ZoneCore::NONE);
    EXPECT_THAT(log.texts(), ElementsAre("W Failed to get state info of zone"));
}

TEST_F(ContainerTest, TranslatesEveryStateWord)
{
    const std::vector<std::pair<const char*, ZoneCore::ZoneState>> words = {
        {"STOPPED", ZoneCore::STOPPED},   {"STARTING", ZoneCore::STARTING}, {"RUNNING", ZoneCore::RUNNING},
        {"STOPPING", ZoneCore::STOPPING}, {"ABORTING", ZoneCore::ABORTING}, {"FREEZING", ZoneCore::FREEZING},
        {"FROZEN", ZoneCore::FROZEN},     {"THAWED", ZoneCore::THAWED},
    };
    for (const auto& [word, state] : words) {
        log.clear();
        lxc.stateWord = word;
        EXPECT_EQ(container->state(), state);
        EXPECT_THAT(log.texts(),
                    testing::Contains(std::string("I The state of zone is received - \"") + word + "\""));
    }
}

TEST_F(ContainerTest, AnUnknownStateWordEndsTheProcess)
{
    lxc.stateWord = "DREAMING";
    const int status = statusOfChild([&] { static_cast<void>(container->state()); });
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
}

// Waiting for a child

TEST_F(ContainerTest, WaitingGivesTheRawStatus)
{
    const pid_t exiting = fork();
    if (exiting == 0) {
        _exit(3);
    }
    const int exitStatus = Container::wait_for_pid_status(exiting);
    EXPECT_TRUE(WIFEXITED(exitStatus));
    EXPECT_EQ(WEXITSTATUS(exitStatus), 3);

    const pid_t killed = fork();
    if (killed == 0) {
        static_cast<void>(raise(SIGKILL));
    }
    const int killStatus = Container::wait_for_pid_status(killed);
    EXPECT_TRUE(WIFSIGNALED(killStatus));
    EXPECT_EQ(WTERMSIG(killStatus), SIGKILL);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerTest, WaitingForSomebodyElsesChildFails)
{
    EXPECT_EQ(Container::wait_for_pid_status(1), -1);
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to waitpid : 1 - \"No child processes\""));
}

TEST_F(ContainerTest, AnInterruptedWaitGoesOnInSilence)
{
    static volatile sig_atomic_t interruptions = 0;
    struct sigaction handler = {};
    struct sigaction before = {};
    handler.sa_handler = [](int) { interruptions = interruptions + 1; };
    sigaction(SIGALRM, &handler, &before); // without SA_RESTART

    const pid_t child = fork();
    if (child == 0) {
        usleep(60000);
        _exit(5);
    }
    const itimerval often{{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const int status = Container::wait_for_pid_status(child);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);

    EXPECT_GT(interruptions, 0);
    EXPECT_EQ(WEXITSTATUS(status), 5);
    EXPECT_THAT(log.texts(), IsEmpty());
}

// Start

TEST_F(ContainerLaunch, StartRunsTheLauncherAndWaitsForIt)
{
    installLauncher("sleep 0.05; echo \"$0 $# $1 $2\" >" + std::string(REPORT));
    lxc.running = true;
    EXPECT_TRUE(container->start());
    EXPECT_EQ(readFile(REPORT), std::string(LAUNCHER) + " 2 start zone\n");
    EXPECT_EQ(lxc.runningTests, 1);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerLaunch, StartSucceedsWhenTheContainerRunsWhateverTheLauncherSays)
{
    for (const char* end : {"exit 1", "exit 255", "kill -9 $$"}) {
        installLauncher(end);
        lxc.running = true;
        EXPECT_TRUE(container->start()) << end;
    }
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerLaunch, StartFailsWhenTheContainerDoesNotRunWhateverTheLauncherSays)
{
    installLauncher("exit 0");
    EXPECT_FALSE(container->start());
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerLaunch, AMissingLauncherIsNoFailureOfItsOwn)
{
    removeLauncher();
    EXPECT_FALSE(container->start());
    lxc.running = true;
    EXPECT_TRUE(container->start());
    EXPECT_FALSE(container->stop());
    lxc.running = false;
    EXPECT_TRUE(container->stop());
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerLaunch, TheChildOfAMissingLauncherExitsWith0)
{
    static int seen = -1;
    removeLauncher();
    struct sigaction handler = {};
    struct sigaction before = {};
    handler.sa_flags = SA_SIGINFO;
    handler.sa_sigaction = [](int, siginfo_t* info, void*) {
        seen = info->si_code == CLD_EXITED ? info->si_status : -2;
    };
    sigaction(SIGCHLD, &handler, &before);
    EXPECT_FALSE(container->start());
    sigaction(SIGCHLD, &before, nullptr);
    EXPECT_EQ(seen, 0);
}

TEST_F(ContainerLaunch, StartClearsAwayWhatAnEarlierRunLeftFirst)
{
    Victim left;
    writeFile(PID_FILE, left.pidText() + "\n");
    // Nobody but the clean-up ends the process, so it becomes a zombie here only if that came first.
    installLauncher("for step in $(seq 500); do grep -q '^State:.Z' /proc/" + left.pidText() +
                    "/status && echo ended >" + REPORT + " && break; sleep 0.01; done");
    static_cast<void>(container->start());
    EXPECT_EQ(readFile(REPORT), "ended\n");
    EXPECT_TRUE(left.wasKilled());
}

// Stop

TEST_F(ContainerLaunch, StopRunsTheLauncherAndWaitsForIt)
{
    installLauncher("sleep 0.05; echo \"$0 $# $1 $2\" >" + std::string(REPORT));
    EXPECT_TRUE(container->stop());
    EXPECT_EQ(readFile(REPORT), std::string(LAUNCHER) + " 2 stop zone\n");
    EXPECT_EQ(lxc.runningTests, 1);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerLaunch, StopClearsAwayWhatIsLeftAfterwards)
{
    Victim left;
    writeFile(PID_FILE, left.pidText() + "\n");
    installLauncher("sleep 0.05; grep -q '^State:.Z' /proc/" + left.pidText() + "/status || echo alive >" +
                    REPORT);
    EXPECT_TRUE(container->stop());
    EXPECT_EQ(readFile(REPORT), "alive\n");
    EXPECT_TRUE(left.wasKilled());
}

TEST_F(ContainerLaunch, AStopThatDidNotWorkLeavesEverythingInPlace)
{
    Victim left;
    writeFile(PID_FILE, left.pidText() + "\n");
    installLauncher("exit 0");
    lxc.running = true;
    EXPECT_FALSE(container->stop());
    EXPECT_TRUE(left.isAlive());
    EXPECT_THAT(log.texts(), IsEmpty());
}

// What the launcher inherits

TEST_F(ContainerLaunch, TheLauncherInheritsTheStandardDescriptorsOnly)
{
    installLauncher("exec >" + std::string(REPORT) + "; ls -l /proc/self/fd");
    ZoneCore::UniqueFd low(open("/dev/zero", O_RDONLY));
    ZoneCore::UniqueFd high(fcntl(low.get(), F_DUPFD, 900));
    ASSERT_TRUE(low);
    ASSERT_TRUE(high);
    EXPECT_EQ(statusOfChild([&] {
                  dup2(low.get(), STDERR_FILENO + 1);
                  static_cast<void>(container->start());
              }),
              0);

    std::vector<std::string> numbers;
    std::istringstream lines(readFile(REPORT));
    for (std::string line; std::getline(lines, line);) {
        if (const auto arrow = line.find(" -> "); arrow != std::string::npos) {
            const auto number = line.rfind(' ', arrow - 1) + 1;
            const std::string target = line.substr(arrow + 4);
            // ls itself has the directory open.
            if (!target.ends_with("/fd")) {
                numbers.push_back(line.substr(number, arrow - number));
            }
            EXPECT_NE(target, "/dev/zero");
        }
    }
    EXPECT_THAT(numbers, testing::UnorderedElementsAre("0", "1", "2"));
}

TEST_F(ContainerLaunch, TheLauncherHasTheSignalsOfAFreshProcess)
{
    // In the launcher's own process: a shell blocks signals while it makes another.
    installLauncher("exec grep -E '^(SigBlk|SigIgn)' /proc/self/status >" + std::string(REPORT));
    EXPECT_EQ(statusOfChild([&] {
                  struct sigaction ignore = {};
                  ignore.sa_handler = SIG_IGN;
                  sigaction(SIGPIPE, &ignore, nullptr);
                  struct sigaction handler = {};
                  handler.sa_handler = [](int) {};
                  sigaction(SIGTERM, &handler, nullptr);
                  ZoneCore::ProcessSignals::hold();
                  static_cast<void>(container->start());
              }),
              0);
    EXPECT_THAT(readFile(REPORT), HasSubstr("SigBlk:\t0000000000000000"));
    EXPECT_THAT(readFile(REPORT), HasSubstr("SigIgn:\t0000000000000000"));
}
