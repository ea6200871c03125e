#include "ZoneCore/ZoneGroupController.h"
#include "tests/support/unit/LogCapture.h"

#include <gtest/gtest.h>

TEST(ZoneGroupController, LogsItsLife)
{
    const ZoneTest::LogCapture log;
    {
        const ZoneCore::ZoneGroupController controller;
        EXPECT_THAT(log.texts(), testing::ElementsAre("I zone group controller instance is created"));
    }
    EXPECT_THAT(log.texts(), testing::ElementsAre("I zone group controller instance is created",
                                                  "I zone group controller instance is destroyed"));
}
