#pragma once

#include <lxc/lxccontainer.h>

#include <string>
#include <sys/types.h>
#include <utility>

namespace ZoneTest {

/// A liblxc handle whose answers a test sets.
struct FakeContainer : lxc_container
{
    explicit FakeContainer(std::string containerName) : lxc_container{}, nameText(std::move(containerName))
    {
        name = nameText.data();
        numthreads = 3;
        may_control = [](lxc_container* self) { return of(self).answer; };
        freeze = [](lxc_container* self) { return of(self).answer; };
        unfreeze = [](lxc_container* self) { return of(self).answer; };
        is_running = [](lxc_container* self) {
            ++of(self).runningTests;
            return of(self).running;
        };
        init_pid = [](lxc_container* self) { return of(self).initPid; };
        state = [](lxc_container* self) { return of(self).stateWord; };
    }
    FakeContainer(const FakeContainer&) = delete;
    FakeContainer& operator=(const FakeContainer&) = delete;

    static FakeContainer& of(lxc_container* handle) { return *static_cast<FakeContainer*>(handle); }

    bool answer = false; ///< of may_control, freeze and unfreeze
    bool running = false;
    int runningTests = 0;
    pid_t initPid = -1;
    const char* stateWord = nullptr;
    int puts = 0; ///< references given back

private:
    std::string nameText;
};

} // namespace ZoneTest
