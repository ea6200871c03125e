#include "tests/support/unit/MessageCatalogue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>

using testing::HasSubstr;
using testing::IsEmpty;
using ZoneTest::couldBe;
using ZoneTest::LogRecord;
using ZoneTest::MessageCatalogue;

TEST(MessageText, WithoutConversionsIsTheFormatItself)
{
    EXPECT_TRUE(couldBe("thread is NULL", "thread is NULL"));
    EXPECT_FALSE(couldBe("thread is NULL", "thread is NUL"));
    EXPECT_FALSE(couldBe("thread is NULL", "thread is NULL."));
}

TEST(MessageText, HoldsNumbersForItsNumbers)
{
    EXPECT_TRUE(couldBe("[%d / %zu] %ld of %ud", "[-1 / 20] 3 of 7d"));
    EXPECT_FALSE(couldBe("[%d]", "[]"));
    EXPECT_FALSE(couldBe("[%d]", "[-]"));
    EXPECT_FALSE(couldBe("[%zu]", "[-1]"));
    EXPECT_FALSE(couldBe("[%d]", "[one]"));
}

TEST(MessageText, HoldsAnythingForItsStrings)
{
    EXPECT_TRUE(couldBe("%s(%s) - \"%s\"", "a((b) - \"c\") - \"\""));
    EXPECT_TRUE(couldBe("%s", ""));
    EXPECT_TRUE(couldBe("%s%d", "red12"));
    EXPECT_FALSE(couldBe("%s is told", "red is told twice"));
}

class MessageCatalogueTest : public testing::Test
{
protected:
    /// A catalogue of these lines.
    static MessageCatalogue catalogueOf(const std::string& lines)
    {
        const std::string path = testing::TempDir() + "catalogue.txt";
        std::ofstream(path) << lines;
        return MessageCatalogue(path);
    }

    const MessageCatalogue catalogue =
        catalogueOf("# comment\nZone.cpp\n  I start | %s is started\n  E start | %s | failed\n");
    LogRecord record{
        'I', 1, 1, "Zone.cpp", "start", 7, "01;32;40", "bool ZoneCore::Zone::start()", "red is started"};
};

TEST_F(MessageCatalogueTest, HasNothingAgainstItsMessages)
{
    EXPECT_THAT(catalogue.complaintAbout(record), IsEmpty());
    record.level = 'E';
    record.colour = "01;31;40";
    record.body = "red | failed";
    EXPECT_THAT(catalogue.complaintAbout(record), IsEmpty());
}

TEST_F(MessageCatalogueTest, LeavesOtherFilesAlone)
{
    record.file = "LogCaptureTest.cpp";
    record.body = "anything";
    EXPECT_THAT(catalogue.complaintAbout(record), IsEmpty());
}

TEST_F(MessageCatalogueTest, NoticesAnotherLevelTextOrFunction)
{
    for (const auto change :
         {+[](LogRecord& one) { one.level = 'E'; }, +[](LogRecord& one) { one.body = "red is stopped"; },
          +[](LogRecord& one) { one.function = "stop"; }}) {
        LogRecord changed = record;
        change(changed);
        EXPECT_THAT(catalogue.complaintAbout(changed), HasSubstr("no such message"));
    }
}

TEST_F(MessageCatalogueTest, NoticesOtherColoursAndAnotherSignature)
{
    LogRecord pale = record;
    pale.colour = "01;31;40";
    EXPECT_THAT(catalogue.complaintAbout(pale), HasSubstr("colours"));
    LogRecord strange = record;
    strange.signature = "bool ZoneCore::Zone::restart()";
    EXPECT_THAT(catalogue.complaintAbout(strange), HasSubstr("signature"));
}

TEST_F(MessageCatalogueTest, RefusesWhatIsNone)
{
    EXPECT_THROW(catalogueOf("  I start | before any file\n"), std::runtime_error);
    EXPECT_THROW(catalogueOf("Zone.cpp\n  I start without a bar\n"), std::runtime_error);
    EXPECT_THROW(catalogueOf(""), std::runtime_error);
    EXPECT_THROW(MessageCatalogue("/nowhere"), std::runtime_error);
}
