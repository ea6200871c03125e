#pragma once

#include <cerrno>
#include <system_error>
#include <unistd.h>

/// As long as it lives, this process may see and do no more than an ordinary user. To be made by root.
class AnotherUser
{
public:
    AnotherUser() { become(NOBODY); }
    ~AnotherUser() { static_cast<void>(seteuid(0)); }
    AnotherUser(const AnotherUser&) = delete;
    AnotherUser& operator=(const AnotherUser&) = delete;

private:
    static constexpr uid_t NOBODY = 65534;

    static void become(uid_t user)
    {
        if (geteuid() != 0 || seteuid(user) != 0) {
            throw std::system_error(errno, std::generic_category(), "seteuid");
        }
    }
};
