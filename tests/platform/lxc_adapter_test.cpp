// The built adapter against the distribution's liblxc, loaded as the daemon loads it.

#include "tests/platform/test_process.h"

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <lxc/lxccontainer.h>
#include <lxc/version.h>
#include <map>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using PlatformTest::runInChild;

class LxcAdapterTest : public testing::Test
{
protected:
    void SetUp() override
    {
        load(LXC_ADAPTER_FILE);
        ASSERT_NE(library_, nullptr) << dlerror();
        std::string pattern = fs::temp_directory_path() / "zone-adapter-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        lxcPath = pattern;
    }

    void TearDown() override
    {
        fs::remove_all(lxcPath);
        fs::remove_all("/run/lxc/lock" + lxcPath);
    }

    void load(const std::string& path, int scope = RTLD_LOCAL)
    {
        library_ = dlopen(path.c_str(), RTLD_NOW | scope);
    }

    /// A child that has looked at a library lets go of it, so that its counters of the covered lines are
    /// kept.
    int unloadAnd(int status)
    {
        dlclose(library_);
        return status;
    }

    /// The adapter opens the distribution's library once: a copy of the file is one that has not done so.
    [[nodiscard]] std::string copy() const
    {
        std::string path = lxcPath + "/liblxc.so.1";
        fs::copy_file(LXC_ADAPTER_FILE, path, fs::copy_options::overwrite_existing);
        return path;
    }

    template <typename Function>
    Function* function(const char* name)
    {
        return reinterpret_cast<Function*>(dlsym(library_, name));
    }

    void define(const std::string& name, const std::string& lines)
    {
        fs::create_directories(lxcPath + "/" + name);
        std::ofstream(lxcPath + "/" + name + "/config") << "lxc.uts.name = " << name << "\n" << lines;
    }

    std::string lxcPath;

private:
    void* library_ = nullptr;
};

} // namespace

// As in the daemon, where the distribution's library finds the adapter's functions before its own. By this
// name GoogleTest runs it first, while that library has not been loaded into this process yet.
using LxcAdapterDeathTest = LxcAdapterTest;

TEST_F(LxcAdapterDeathTest, AHandleThatComesByTwiceStillForwards)
{
    define("red", "zone.container_type = 2\n");
    const auto result = runInChild({}, [&] {
        load(copy(), RTLD_GLOBAL);
        lxc_container** containers = nullptr;
        if (function<decltype(list_defined_containers)>("list_defined_containers")(lxcPath.c_str(), nullptr,
                                                                                   &containers) != 1) {
            return 1;
        }
        lxc_container* red = containers[0];
        char name[64] = "";
        const bool answers = red->get_config_item(red, "lxc.container_type", nullptr, 0) == 2 &&
                             red->get_config_item(red, "lxc.uts.name", name, sizeof(name)) == 3 &&
                             std::strcmp(name, "red") == 0;
        return answers ? 0 : 2;
    });
    EXPECT_EQ(result.exitStatus, 0) << result.signal << result.output;
}

TEST_F(LxcAdapterTest, ForwardsToTheDistributionsLibrary)
{
    EXPECT_STREQ(function<decltype(lxc_get_version)>("lxc_get_version")(), LXC_VERSION);
    EXPECT_STREQ(function<decltype(lxc_get_global_config_item)>("lxc_get_global_config_item")("lxc.lxcpath"),
                 "/var/lib/lxc");
}

TEST_F(LxcAdapterTest, ListedContainersAnswerTheirKind)
{
    define("red", "zone.container_type = 2\n");
    define("green", "zone.container_type = protection\n");
    define("blue", "");
    char** names = nullptr;
    lxc_container** containers = nullptr;
    const int count = function<decltype(list_defined_containers)>("list_defined_containers")(
        lxcPath.c_str(), &names, &containers);
    ASSERT_EQ(count, 3);
    std::map<std::string, int> kinds;
    for (int index = 0; index < count; ++index) {
        lxc_container* container = containers[index];
        char buffer[16] = "untouched";
        kinds[names[index]] = container->get_config_item(container, "lxc.container_type", nullptr, 0);
        EXPECT_EQ(container->get_config_item(container, "lxc.container_type", buffer, sizeof(buffer)),
                  kinds[names[index]]);
        EXPECT_EQ(container->get_config_item(container, "lxc.container_type", buffer, 0),
                  kinds[names[index]]);

        char name[64] = "";
        EXPECT_EQ(container->get_config_item(container, "lxc.uts.name", name, sizeof(name)),
                  static_cast<int>(std::strlen(names[index])));
        EXPECT_STREQ(name, names[index]);
        EXPECT_EQ(function<decltype(lxc_container_put)>("lxc_container_put")(container), 1);
        free(names[index]);
    }
    free(names);
    free(containers);
    EXPECT_EQ(kinds, (std::map<std::string, int>{{"blue", -1}, {"green", 3}, {"red", 2}}));
}

TEST_F(LxcAdapterTest, AListingWithoutHandlesIsForwarded)
{
    define("red", "zone.container_type = 2\n");
    const auto list = function<decltype(list_defined_containers)>("list_defined_containers");
    EXPECT_EQ(list(lxcPath.c_str(), nullptr, nullptr), 1);
    EXPECT_EQ(list((lxcPath + "/nowhere").c_str(), nullptr, nullptr), -1);
}

TEST_F(LxcAdapterTest, ANewHandleAnswersItsKindAndCountsReferences)
{
    define("red", "zone.container_type = 1\n");
    lxc_container* container =
        function<decltype(lxc_container_new)>("lxc_container_new")("red", lxcPath.c_str());
    ASSERT_NE(container, nullptr);
    EXPECT_EQ(container->get_config_item(container, "lxc.container_type", nullptr, 0), 1);
    EXPECT_STREQ(container->state(container), "STOPPED");
    const auto put = function<decltype(lxc_container_put)>("lxc_container_put");
    EXPECT_EQ(function<decltype(lxc_container_get)>("lxc_container_get")(container), 1);
    EXPECT_EQ(container->numthreads, 2);
    EXPECT_EQ(put(container), 0);
    EXPECT_EQ(put(container), 1);
}

TEST_F(LxcAdapterTest, TheKindIsReadAtEachQuery)
{
    define("red", "zone.container_type = 1\n");
    lxc_container* container =
        function<decltype(lxc_container_new)>("lxc_container_new")("red", lxcPath.c_str());
    ASSERT_NE(container, nullptr);
    define("red", "zone.container_type = 3\n");
    EXPECT_EQ(container->get_config_item(container, "lxc.container_type", nullptr, 0), 3);
    fs::remove(lxcPath + "/red/config");
    EXPECT_EQ(container->get_config_item(container, "lxc.container_type", nullptr, 0), -1);
    function<decltype(lxc_container_put)>("lxc_container_put")(container);
}

TEST_F(LxcAdapterTest, ExportsTheFourMonitorFunctionsAndNoHelpers)
{
    for (const char* name :
         {"lxc_monitor_fifo_name", "lxc_monitor_sock_name", "lxc_abstract_unix_open", "lxc_state2str"}) {
        EXPECT_NE(function<void()>(name), nullptr) << name;
    }
    EXPECT_STREQ(function<const char*(int)>("lxc_state2str")(2), "RUNNING");
    EXPECT_EQ(function<void()>("_ZN10LxcAdapter17readContainerTypeERSi"), nullptr);
}

TEST_F(LxcAdapterTest, OnlyTheKindIsItsOwnAnswer)
{
    define("red", "zone.container_type = 1\n");
    lxc_container* container =
        function<decltype(lxc_container_new)>("lxc_container_new")("red", lxcPath.c_str());
    ASSERT_NE(container, nullptr);
    EXPECT_LT(container->get_config_item(container, "lxc.container_types", nullptr, 0), 0);
    EXPECT_LT(container->get_config_item(container, "zone.container_type", nullptr, 0), 0);
    EXPECT_LT(container->get_config_item(nullptr, "lxc.container_type", nullptr, 0), 0);
    EXPECT_EQ(function<decltype(lxc_container_put)>("lxc_container_put")(container), 1);
}

TEST_F(LxcAdapterTest, AHandleWithoutAConfigurationFileHasNoKind)
{
    define("red", "zone.container_type = 1\n");
    lxc_container* container =
        function<decltype(lxc_container_new)>("lxc_container_new")("red", lxcPath.c_str());
    ASSERT_NE(container, nullptr);
    container->config_file_name = [](lxc_container*) -> char* { return nullptr; };
    EXPECT_EQ(container->get_config_item(container, "lxc.container_type", nullptr, 0), -1);
    EXPECT_EQ(function<decltype(lxc_container_put)>("lxc_container_put")(container), 1);
}

TEST_F(LxcAdapterTest, AContainerThatCannotBeHadIsNull)
{
    EXPECT_EQ(function<decltype(lxc_container_new)>("lxc_container_new")(nullptr, lxcPath.c_str()), nullptr);
}

TEST_F(LxcAdapterTest, AnEmptyWishIsNone)
{
    const auto result = runInChild({}, [&] {
        setenv("ZONE_SYSTEM_LIBLXC", "", 1);
        load(copy());
        return std::strcmp(function<decltype(lxc_get_version)>("lxc_get_version")(), LXC_VERSION);
    });
    EXPECT_EQ(result.exitStatus, 0) << result.output;
}

TEST_F(LxcAdapterTest, WithoutTheDistributionsLibraryEveryCallFailsAndOneLineSaysWhy)
{
    const std::string itself = copy();
    for (const std::string& path : {std::string("/nowhere/liblxc.so.1"), std::string("libm.so.6"), itself}) {
        const auto result = runInChild({{"ZONE_SYSTEM_LIBLXC", path}}, [&] {
            load(itself);
            char** names = nullptr;
            const bool allFail =
                function<decltype(lxc_get_version)>("lxc_get_version")() == nullptr &&
                function<decltype(lxc_get_global_config_item)>("lxc_get_global_config_item")("lxc.lxcpath") ==
                    nullptr &&
                function<decltype(list_defined_containers)>("list_defined_containers")("/", &names,
                                                                                       nullptr) == -1 &&
                function<decltype(lxc_container_new)>("lxc_container_new")("x", "/") == nullptr &&
                function<decltype(lxc_container_get)>("lxc_container_get")(nullptr) == 0 &&
                function<decltype(lxc_container_put)>("lxc_container_put")(nullptr) == -1 &&
                std::strcmp(function<const char*(int)>("lxc_state2str")(0), "STOPPED") == 0;
            return unloadAnd(allFail ? 0 : 1);
        });
        EXPECT_EQ(result.exitStatus, 0) << result.signal;
        EXPECT_TRUE(result.output.starts_with("liblxc adapter: cannot use " + path + ": ")) << result.output;
        EXPECT_EQ(result.output.find('\n'), result.output.size() - 1) << result.output;
    }
}

// lxc-monitor is the distribution's own subscriber: it must find the socket that these functions make.
TEST_F(LxcAdapterTest, TheDistributionsMonitorClientConnects)
{
    sockaddr_un address = {};
    ASSERT_EQ(function<int(const char*, sockaddr_un*)>("lxc_monitor_sock_name")(lxcPath.c_str(), &address),
              0);
    const int server =
        function<int(const char*, int, int)>("lxc_abstract_unix_open")(address.sun_path, SOCK_STREAM, 512);
    ASSERT_GE(server, 0);
    const pid_t client = fork();
    if (client == 0) {
        execlp("lxc-monitor", "lxc-monitor", "-P", lxcPath.c_str(), "-n", ".*", nullptr);
        _exit(127);
    }
    pollfd readable{.fd = server, .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&readable, 1, 10000), 1);
    kill(client, SIGKILL);
    waitpid(client, nullptr, 0);
    close(server);
}
