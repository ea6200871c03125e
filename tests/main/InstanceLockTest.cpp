#include "main/InstanceLock.h"

#include "tests/support/unit/LogCapture.h"
#include "tests/support/unit/PrivateRoot.h"
#include "tests/support/unit/Seam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsSupersetOf;
using ZoneTest::LogCapture;
using ZoneTest::readFile;
using ZoneTest::writeFile;

namespace {

constexpr const char* RUN = "/var/run/lxc";
constexpr const char* LOCK_DIRECTORY = "/var/run/lxc/lock";
constexpr const char* TEMPLATE = "/opt/zone/template";
constexpr const char* SECURE_DATA = "/opt/zone/template/securedata";
constexpr const char* SMACK_ATTRIBUTE = "security.SMACK64";

/// What flock answers with; 0 for the system's own answer.
int flockError = 0;
/// Made by somebody else right before mkdir makes it; null for nothing.
const char* madeMeanwhile = nullptr;
/// A descriptor, and whether it was still open when a file was removed.
int watchedFd = -1;
bool wasOpenAtRemoval = false;

mode_t modeOf(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

void label(const char* path, const std::string& text)
{
    ASSERT_EQ(setxattr(path, SMACK_ATTRIBUTE, text.data(), text.size(), 0), 0) << path;
}

std::string labelOf(const char* path)
{
    std::array<char, 64> text{};
    const ssize_t length = getxattr(path, SMACK_ATTRIBUTE, text.data(), text.size());
    return length < 0 ? "none" : std::string(text.data(), static_cast<std::size_t>(length));
}

std::ptrdiff_t openDescriptors()
{
    using Iterator = std::filesystem::directory_iterator;
    return std::distance(Iterator("/proc/self/fd"), Iterator());
}

} // namespace

// These take the place of the C library's in this program.

extern "C" int flock(int fd, int operation) noexcept
{
    if (flockError != 0) {
        errno = flockError;
        return -1;
    }
    return ZoneTest::genuine(&flock, "flock")(fd, operation);
}

extern "C" int mkdir(const char* path, mode_t mode) noexcept
{
    const auto genuine = ZoneTest::genuine(&mkdir, "mkdir");
    if (madeMeanwhile != nullptr) {
        EXPECT_EQ(genuine(std::exchange(madeMeanwhile, nullptr), 0700), 0);
    }
    return genuine(path, mode);
}

extern "C" int remove(const char* path) noexcept
{
    wasOpenAtRemoval = fcntl(watchedFd, F_GETFD) != -1;
    return ZoneTest::genuine(&remove, "remove")(path);
}

namespace {

class InstanceLock : public ZoneTest::InPrivateRoot
{
protected:
    void SetUp() override
    {
        InPrivateRoot::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        umask(0);
        std::filesystem::remove_all(RUN);
        std::filesystem::remove_all("/opt/zone");
        std::filesystem::create_directory(RUN);
        label(RUN, "!");
    }

    void TearDown() override
    {
        flockError = 0;
        madeMeanwhile = nullptr;
        watchedFd = -1;
    }

    using Lines = std::vector<std::string>;

    /// All that has been written: the lines that an attempt to lock begins with, and then these.
    void expectAttempt(const Lines& rest) const
    {
        Lines lines = {"I Get zone manager lock - " + path, "I \"/var/run/lxc\" smack label is \"!\"(1)",
                       "I \"/var/run/lxc\" smack label is already set as \"!\""};
        lines.insert(lines.end(), rest.begin(), rest.end());
        EXPECT_THAT(log.texts(), ElementsAreArray(lines));
    }

    LogCapture log;
    std::string path = "/var/run/lxc/lock/zone-manager.lock";
};
using InstanceLockRelease = InstanceLock;
using TemplatePath = InstanceLock;

const std::string LOCKED = "I reference count of security interface - 1";
const std::string NO_DIRECTORY =
    "D The contianer lock path(/var/run/lxc/lock) does not exist - \"No such file or directory\"";
const std::string DIRECTORY_EXISTS = "I The container lock path(/var/run/lxc/lock) does exist";
const std::string NO_BASE = "E Failed to create the basepath of zone-manager lock - /var/run/lxc/lock";

/// Makes a directory read-only, which stops even root, as long as the object lives.
class ReadOnly
{
public:
    explicit ReadOnly(const char* path) : directory(path)
    {
        EXPECT_EQ(mount(path, path, nullptr, MS_BIND, nullptr), 0);
        EXPECT_EQ(mount(nullptr, path, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    }
    ~ReadOnly() { EXPECT_EQ(umount(directory), 0); }
    ReadOnly(const ReadOnly&) = delete;
    ReadOnly& operator=(const ReadOnly&) = delete;

private:
    const char* directory;
};

} // namespace

TEST_F(InstanceLock, MakesItsDirectoryAndItsFile)
{
    int fd = get_zone_manager_lock(path);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(modeOf(LOCK_DIRECTORY), 0755U);
    EXPECT_EQ(modeOf(path), 0660U);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    expectAttempt({NO_DIRECTORY, LOCKED});
    release_zone_manager_lock(path.c_str(), &fd);
}

TEST_F(InstanceLock, UsesADirectoryThatIsThere)
{
    ASSERT_EQ(mkdir(LOCK_DIRECTORY, 0700), 0);
    int fd = get_zone_manager_lock(path);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(modeOf(LOCK_DIRECTORY), 0700U);
    expectAttempt({LOCKED});
    release_zone_manager_lock(path.c_str(), &fd);
}

TEST_F(InstanceLock, KeepsASecondInstanceOut)
{
    int fd = get_zone_manager_lock(path);
    ASSERT_GE(fd, 0);
    log.clear();
    const auto before = openDescriptors();
    EXPECT_EQ(get_zone_manager_lock(path), -1);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(std::filesystem::exists(path));
    expectAttempt({"E Another instance of Zone Manager is running - \"Resource temporarily unavailable\"",
                   "E Failed to get exclusive & non-blocking lock(ref count : 1) - "
                   "\"Resource temporarily unavailable\""});
    release_zone_manager_lock(path.c_str(), &fd);
}

TEST_F(InstanceLock, AFailureThatIsNoOtherInstanceIsNotCalledOne)
{
    std::filesystem::create_directory(LOCK_DIRECTORY);
    flockError = ENOLCK;
    const auto before = openDescriptors();
    EXPECT_EQ(get_zone_manager_lock(path), -1);
    EXPECT_EQ(openDescriptors(), before);
    expectAttempt({"E Failed to get exclusive & non-blocking lock(ref count : 1) - \"No locks available\""});
}

TEST_F(InstanceLock, TakesTheFileOfAnInstanceThatCrashed)
{
    std::array<int, 2> ready{};
    ASSERT_EQ(pipe(ready.data()), 0);
    const pid_t other = fork();
    if (other == 0) {
        const int held = get_zone_manager_lock(path);
        static_cast<void>(write(ready[1], held >= 0 ? "y" : "n", 1));
        pause();
    }
    char answer = '?';
    ASSERT_EQ(read(ready[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    EXPECT_EQ(get_zone_manager_lock(path), -1);
    kill(other, SIGKILL);
    ASSERT_EQ(waitpid(other, nullptr, 0), other);
    close(ready[0]);
    close(ready[1]);

    EXPECT_TRUE(std::filesystem::exists(path));
    int fd = get_zone_manager_lock(path);
    EXPECT_GE(fd, 0);
    release_zone_manager_lock(path.c_str(), &fd);
}

TEST_F(InstanceLock, LeavesTheContentOfTheFile)
{
    std::filesystem::create_directory(LOCK_DIRECTORY);
    writeFile(path, "stale");
    int fd = get_zone_manager_lock(path);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(readFile(path), "stale");
    release_zone_manager_lock(path.c_str(), &fd);
}

TEST_F(InstanceLock, NeedsAPath)
{
    std::string none;
    EXPECT_EQ(get_zone_manager_lock(none), -1);
    EXPECT_THAT(log.texts(), ElementsAre("I Get zone manager lock - ", "E Invalid arguments"));
    EXPECT_FALSE(std::filesystem::exists(LOCK_DIRECTORY));
}

TEST_F(InstanceLock, NeedsTheRunDirectory)
{
    ASSERT_EQ(removexattr(RUN, SMACK_ATTRIBUTE), 0); // a directory without a label cannot be labelled
    EXPECT_EQ(get_zone_manager_lock(path), -1);
    EXPECT_THAT(
        log.texts(),
        ElementsAre(
            "I Get zone manager lock - " + path,
            "E Failed to get smack label of \"/var/run/lxc\"(\"!\") - \"No data available\"",
            "E Failed to set container access label(!) to the basepath of container running(/var/run/lxc)",
            "E Failed to ensure Container Run Path(/var/run/lxc)", NO_BASE));
    EXPECT_FALSE(std::filesystem::exists(LOCK_DIRECTORY));
}

TEST_F(InstanceLock, AcceptsADirectoryThatSomebodyElseMakesMeanwhile)
{
    madeMeanwhile = LOCK_DIRECTORY;
    int fd = get_zone_manager_lock(path);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(modeOf(LOCK_DIRECTORY), 0700U);
    expectAttempt({NO_DIRECTORY, DIRECTORY_EXISTS, LOCKED});
    release_zone_manager_lock(path.c_str(), &fd);
}

TEST_F(InstanceLock, TakesAReadOnlyDirectoryForAnExistingOne)
{
    std::filesystem::create_directory(LOCK_DIRECTORY);
    const ReadOnly mounted(LOCK_DIRECTORY);
    EXPECT_EQ(get_zone_manager_lock(path), -1);
    expectAttempt({"D The contianer lock path(/var/run/lxc/lock) does not exist - \"Read-only file system\"",
                   DIRECTORY_EXISTS,
                   "E Failed to open \"" + path + "\"...(ref count : 1) - \"Read-only file system\""});
}

TEST_F(InstanceLock, ReportsADirectoryThatCannotBeMade)
{
    const ReadOnly mounted(RUN);
    EXPECT_EQ(get_zone_manager_lock(path), -1);
    EXPECT_THAT(
        log.texts(),
        ElementsAre("I Get zone manager lock - " + path,
                    "D The contianer run path(/var/run/lxc) does not exist - \"Read-only file system\"",
                    "I The container run path(/var/run/lxc) does exist",
                    "I \"/var/run/lxc\" smack label is \"!\"(1)",
                    "I \"/var/run/lxc\" smack label is already set as \"!\"", NO_DIRECTORY,
                    "E Failed to create the container lock path(/var/run/lxc/lock) - "
                    "\"Read-only file system\"",
                    NO_BASE));
}

TEST_F(InstanceLock, ReportsAFileThatCannotBeOpened)
{
    ASSERT_EQ(mkdir(LOCK_DIRECTORY, 0755), 0);
    path = LOCK_DIRECTORY;
    EXPECT_EQ(get_zone_manager_lock(path), -1);
    expectAttempt({"E Failed to open \"/var/run/lxc/lock\"...(ref count : 1) - \"Is a directory\""});
}

// Release

TEST_F(InstanceLockRelease, ClosesAndRemoves)
{
    int fd = get_zone_manager_lock(path);
    ASSERT_GE(fd, 0);
    watchedFd = fd;
    wasOpenAtRemoval = true;
    log.clear();
    release_zone_manager_lock(path.c_str(), &fd);
    EXPECT_EQ(fd, -1);
    EXPECT_FALSE(wasOpenAtRemoval);
    EXPECT_EQ(fcntl(watchedFd, F_GETFD), -1);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_THAT(log.texts(), ElementsAre("I Release zone manager lock - " + path));

    int next = get_zone_manager_lock(path);
    EXPECT_GE(next, 0);
    release_zone_manager_lock(path.c_str(), &next);
}

TEST_F(InstanceLockRelease, OnlyRemovesWithoutADescriptor)
{
    std::filesystem::create_directory(LOCK_DIRECTORY);
    writeFile(path, "");
    const auto before = openDescriptors();
    int fd = -1;
    release_zone_manager_lock(path.c_str(), &fd);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_THAT(log.texts(), ElementsAre("I Release zone manager lock - " + path));
}

TEST_F(InstanceLockRelease, ClosesDescriptor0Too)
{
    const int standardInput = dup(STDIN_FILENO);
    int fd = STDIN_FILENO;
    release_zone_manager_lock("", &fd);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    dup2(standardInput, STDIN_FILENO);
    close(standardInput);
}

TEST_F(InstanceLockRelease, OnlyClosesWithoutAPath)
{
    int fd = open("/dev/null", O_RDONLY);
    release_zone_manager_lock("", &fd);
    EXPECT_EQ(fd, -1);
    EXPECT_THAT(log.texts(), ElementsAre("I Release zone manager lock - "));
}

TEST_F(InstanceLockRelease, ReportsAFileThatCannotBeRemoved)
{
    int fd = -1;
    release_zone_manager_lock(path.c_str(), &fd);
    EXPECT_THAT(log.texts(), ElementsAre("I Release zone manager lock - " + path,
                                         "E Failed to call remove() syscall - " + path +
                                             " - \"No such file or directory\""));
}

// Template directories

TEST_F(TemplatePath, MakesAndLabelsTheDirectories)
{
    std::filesystem::create_directory("/opt/zone");
    init_template_path();
    EXPECT_EQ(modeOf(TEMPLATE), 0755U);
    EXPECT_EQ(modeOf(SECURE_DATA), 0755U);
    const Lines made = {
        "D The contianer path(/opt/zone/template) does not exist - \"No such file or directory\"",
        "D The contianer path(/opt/zone/template/securedata) does not exist - \"No such file or directory\""};
    EXPECT_THAT(log.texts(), IsSupersetOf(made));
    // Without Smack in the kernel a new directory has no label, and one without a label gets none.
    if (labelOf(SECURE_DATA) == "none") {
        EXPECT_THAT(
            log.texts(),
            ElementsAre(made[0], made[1],
                        "E Failed to get smack label of \"/opt/zone/template/securedata\"(\"!\") - \"No data "
                        "available\"",
                        "E Failed to set container access label (!) to the (/opt/zone/template/securedata)"));
    } else {
        EXPECT_EQ(labelOf(SECURE_DATA), "!");
    }
}

TEST_F(TemplatePath, ChangesTheLabelOfADirectoryThatIsThere)
{
    std::filesystem::create_directories(SECURE_DATA);
    label(SECURE_DATA, "_");
    init_template_path();
    EXPECT_EQ(labelOf(SECURE_DATA), "!");
    EXPECT_THAT(
        log.texts(),
        ElementsAre("I \"/opt/zone/template/securedata\" smack label is \"_\"(1)",
                    "I \"/opt/zone/template/securedata\" smack label is changed to \"!\" successfully"));
}

TEST_F(TemplatePath, StopsWithoutTheFirstDirectory)
{
    init_template_path();
    EXPECT_THAT(
        log.texts(),
        ElementsAre(
            "D The contianer path(/opt/zone/template) does not exist - \"No such file or directory\"",
            "E Failed to create the container path(/opt/zone/template) - \"No such file or directory\"",
            "E Failed to create path (/opt/zone/template) - \"No such file or directory\""));
}

TEST_F(TemplatePath, StopsWithoutTheSecondDirectory)
{
    std::filesystem::create_directory("/opt/zone");
    writeFile(TEMPLATE, "");
    init_template_path();
    EXPECT_THAT(
        log.texts(),
        ElementsAre(
            "D The contianer path(/opt/zone/template/securedata) does not exist - \"Not a directory\"",
            "E Failed to create the container path(/opt/zone/template/securedata) - \"Not a directory\"",
            "E Failed to create path (/opt/zone/template/securedata) - \"Not a directory\""));
}
