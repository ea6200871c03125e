#include "Common/SystemError.h"

#include "tests/support/unit/Seam.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>

using ZoneCore::SystemErrorText;

namespace {

/// What strerror_r answers in place of the C library's.
enum class Answer
{
    Genuine,
    Null,
    Empty
};
Answer answer = Answer::Genuine;

class SystemError : public testing::Test
{
protected:
    ~SystemError() override { answer = Answer::Genuine; }
};

} // namespace

// Takes the place of the C library's in this program.
extern "C" char* strerror_r(int error, char* buffer, std::size_t size) noexcept
{
    static char empty[] = "";
    switch (answer) {
    case Answer::Null:
        return nullptr;
    case Answer::Empty:
        return empty;
    case Answer::Genuine:
        break;
    }
    return ZoneTest::genuine(&strerror_r, "strerror_r")(error, buffer, size);
}

TEST_F(SystemError, SaysWhatTheNumberMeans)
{
    EXPECT_STREQ(SystemErrorText(ENOENT).c_str(), "No such file or directory");
    EXPECT_STREQ(SystemErrorText(EINVAL).c_str(), "Invalid argument");
}

TEST_F(SystemError, IsAboutTheCurrentErrorByDefault)
{
    errno = EACCES;
    EXPECT_STREQ(SystemErrorText().c_str(), "Permission denied");
}

TEST_F(SystemError, KnowsNumbersWithoutAMeaning)
{
    EXPECT_STREQ(SystemErrorText(4711).c_str(), "Unknown error 4711");
}

TEST_F(SystemError, TextsDoNotShareTheirMemory)
{
    const SystemErrorText first(4711);
    const SystemErrorText second(4712);
    EXPECT_STREQ(first.c_str(), "Unknown error 4711");
    EXPECT_STREQ(second.c_str(), "Unknown error 4712");
}

TEST_F(SystemError, HasATextWhenTheLibraryGivesNone)
{
    answer = Answer::Null;
    EXPECT_STREQ(SystemErrorText(ENOENT).c_str(), "Failed to get errno string");
    answer = Answer::Empty;
    EXPECT_STREQ(SystemErrorText(ENOENT).c_str(), "Failed to get errno string");
}
