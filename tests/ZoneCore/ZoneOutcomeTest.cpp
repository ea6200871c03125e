// When a zone's record of an outcome is written, its fields tell the same already: who follows the log and
// then asks must not be told otherwise. write is replaced in this program, to look at the fields at that
// moment.
#include "ZoneCore/Zone.h"
#include "tests/ZoneCore/ZoneThreadFixture.h"
#include "tests/support/unit/Seam.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <unistd.h>

using namespace ZoneCore;

namespace {

struct Fields
{
    ZUP::ZoneOperationType operation;
    bool restart;
    pid_t initPid;
    ZoneState state = NONE;
    bool operator==(const Fields&) const = default;
};

void PrintTo(const Fields& fields, std::ostream* stream)
{
    *stream << "operation " << fields.operation << ", restart " << fields.restart << ", init pid "
            << fields.initPid << ", state " << fields.state;
}

/// The record that is waited for, and what the fields were when it was written.
struct Watch
{
    const Zone* zone;
    std::string_view record;
    std::optional<Fields> seen{};
};
Watch* watch = nullptr;

} // namespace

extern "C" ssize_t write(int fd, const void* data, size_t size)
{
    if (watch != nullptr && fd == STDERR_FILENO &&
        std::string_view(static_cast<const char*>(data), size).find(watch->record) !=
            std::string_view::npos) {
        watch->seen = Fields{watch->zone->operationType.load(), watch->zone->restartFlag.load(),
                             watch->zone->initPid.load(), watch->zone->state.load()};
    }
    return ZoneTest::genuine(&write, "write")(fd, data, size);
}

namespace {

class ZoneOutcome : public ZoneTest::ZoneThreadTest
{
protected:
    void SetUp() override
    {
        ZoneThreadTest::SetUp();
        zone->restartFlag = true;
    }

    /// Does something. @return the fields at the moment when the record was written
    std::optional<Fields> fieldsAt(std::string_view record, const std::function<void()>& step) const
    {
        Watch current{zone.get(), record};
        watch = &current;
        step();
        watch = nullptr;
        return current.seen;
    }
    std::optional<Fields> fieldsAt(std::string_view record, ZoneEventType command, ZoneState state = NONE)
    {
        return fieldsAt(record, [&] { static_cast<void>(handle(command, state)); });
    }
};

} // namespace

TEST_F(ZoneOutcome, OfAStart)
{
    EXPECT_EQ(fieldsAt("alpha is started successfully", eZONE_EVENT_START),
              (Fields{ZUP::ZONE_OPERATION_START, false, 0}));
}

TEST_F(ZoneOutcome, OfAStop)
{
    container("state", "RUNNING");
    container("running", "1");
    EXPECT_EQ(fieldsAt("alpha is stopped successfully", eZONE_EVENT_STOP),
              (Fields{ZUP::ZONE_OPERATION_STOP, false, 0}));
}

TEST_F(ZoneOutcome, OfAFailedStop)
{
    container("running", "1");
    container("stop", "exit 0");
    EXPECT_EQ(fieldsAt("Failed to stop alpha", eZONE_EVENT_STOP),
              (Fields{ZUP::ZONE_OPERATION_NONE, true, 0}));
}

TEST_F(ZoneOutcome, OfAFreezeAndAnUnfreeze)
{
    container("state", "RUNNING");
    EXPECT_EQ(fieldsAt("alpha is freezed successfully", eZONE_EVENT_FREEZE),
              (Fields{ZUP::ZONE_OPERATION_FREEZE, true, 0}));
    EXPECT_EQ(fieldsAt("alpha is unfreezed successfully", eZONE_EVENT_UNFREEZE),
              (Fields{ZUP::ZONE_OPERATION_UNFREEZE, true, 0}));
}

TEST_F(ZoneOutcome, OfAReportThatItRuns)
{
    container("init_pid", "77");
    EXPECT_EQ(fieldsAt("The init pid(77) of zone(alpha) is set", eZONE_EVENT_CHANGE_STATE, RUNNING),
              (Fields{ZUP::ZONE_OPERATION_NONE, true, 77, RUNNING}));
}

TEST_F(ZoneOutcome, OfAReportComesAfterTheRecordThatItArrived)
{
    EXPECT_EQ(fieldsAt("ZONE CHANGE STATE[2]", eZONE_EVENT_CHANGE_STATE, STARTING),
              (Fields{ZUP::ZONE_OPERATION_NONE, true, 0, NONE}));
    EXPECT_EQ(zone->state.load(), STARTING);
}

TEST_F(ZoneOutcome, OfARestartByTheWatcher)
{
    container("init_pid", "78");
    zone->initPid = 77;
    const auto fields = fieldsAt("alpha is re-started successfully",
                                 [this] { EXPECT_TRUE(Zone::zoneWatcherTimer(zone.get())); });
    EXPECT_EQ(fields, (Fields{ZUP::ZONE_OPERATION_START, false, 77}));
}
