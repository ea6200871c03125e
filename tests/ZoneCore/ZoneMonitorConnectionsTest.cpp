#include "tests/ZoneCore/ZoneMonitorFixture.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace ZoneCore;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;
using ZoneTest::atEnd;
using ZoneTest::connectTo;
using ZoneTest::line;
using ZoneTest::LXC_FROZEN;
using ZoneTest::ownTexts;
using ZoneTest::QUERIES;
using ZoneTest::received;
using ZoneTest::STATE;
using ZoneTest::SUBSCRIBERS;
using ZoneTest::ZoneMonitorTest;

// Subscribers.

TEST_F(ZoneMonitorTest, AcceptsASubscriber)
{
    const UniqueFd client = connectTo(SUBSCRIBERS);
    EXPECT_EQ(monitor->drain(), 1);
    EXPECT_THAT(
        ownTexts(log),
        ElementsAre(
            line("I", "server accept IO event is received[fd : #, count : 0]"),
            line("I", "Client[fd : #] is connected[listen socket : #]"),
            MatchesRegex("I Process Permission is allowed \\[0 <-> 0\\], \\[fd : [0-9]+\\]"),
            line("I", "G_IO_FLAG_NONBLOCK flag is set for client connection[client fd : #, count : 0]"),
            line("I", "IO(#) watcher is added to Thread Context"),
            line("I", "client connection is added to GIO Channel List[client fd : #, count : 1]")));
}

TEST_F(ZoneMonitorTest, RefusesASubscriberOfAnotherUser)
{
    ASSERT_EQ(seteuid(65534), 0);
    const UniqueFd client = connectTo(SUBSCRIBERS);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(monitor->drain(), 1);
    EXPECT_THAT(ownTexts(log).back(), StartsWith("E Process Permission is not matched [65534 <-> 0]"));
    EXPECT_TRUE(atEnd(client));
    const auto texts = relay(STATE, "hybrid", LXC_FROZEN);
    EXPECT_THAT(texts, Not(Contains(HasSubstr("notified"))));
}

TEST_F(ZoneMonitorTest, ReportsAnAcceptThatFailsAndGoesOn)
{
    GIOChannel* channel = g_io_channel_unix_new(fifo.get()); // no socket
    EXPECT_TRUE(ZoneMonitor::serverIOEventCallback(channel, G_IO_IN, monitor));
    EXPECT_THAT(ownTexts(log),
                ElementsAre(line("I", "server accept IO event is received[fd : #, count : 0]"),
                            line("E", "Failed to accept client connection[listen socket : #]")));
    g_io_channel_unref(channel);
}

TEST_F(ZoneMonitorTest, ReadsAndIgnoresWhatASubscriberSends)
{
    const UniqueFd client = subscribe();
    ASSERT_EQ(write(client.get(), "abcdef", 6), 6);
    EXPECT_EQ(monitor->drain(), 2); // four bytes a wake-up
    EXPECT_THAT(ownTexts(log), ElementsAre(line("I", "client IO event is received[fd : #, count : 1]"),
                                           line("I", "read data from clients[#] - abcd"),
                                           line("I", "client IO event is received[fd : #, count : 1]"),
                                           line("I", "read data from clients[#] - ef")));
    static_cast<void>(relay(STATE, "hybrid", LXC_FROZEN));
    EXPECT_EQ(received(client).size(), sizeof(lxc_msg));
}

TEST_F(ZoneMonitorTest, DropsASubscriberThatHangsUp)
{
    const UniqueFd stays = subscribe();
    UniqueFd leaves = subscribe();
    leaves.reset();
    EXPECT_EQ(monitor->drain(), 1);
    EXPECT_THAT(ownTexts(log),
                ElementsAre(line("I", "client IO event is received[fd : #, count : 2]"),
                            line("I", "client socket connection is broken(Hung up)[fd : #]"),
                            line("I", "Remove client connections[#] - [count : 2]"),
                            line("I", "Found client connection from client GIO List[client socket : #]"),
                            line("I", "Current client connection count[count : 1]"),
                            line("I", "GIO Channel is destroyed[fd : #]")));
    EXPECT_THAT(relay(STATE, "hybrid", LXC_FROZEN),
                Contains(line("I", "hybrid => FROZEN message is notified to [fd : #, count : 1]")).Times(1));
    EXPECT_EQ(received(stays).size(), sizeof(lxc_msg));
}

TEST_F(ZoneMonitorTest, KeepsASubscriberThatOnlyListens)
{
    UniqueFd client = subscribe();
    ASSERT_EQ(shutdown(client.get(), SHUT_WR), 0);
    EXPECT_EQ(monitor->drain(), 1); // and does not spin
    static_cast<void>(relay(STATE, "hybrid", LXC_FROZEN));
    EXPECT_EQ(received(client).size(), sizeof(lxc_msg));
    client.reset();
    log.clear();
    EXPECT_EQ(monitor->drain(), 1);
    EXPECT_THAT(ownTexts(log), Contains(line("I", "Current client connection count[count : 0]")));
}

// Init-pid queries.

TEST_F(ZoneMonitorTest, TellsTheInitPidOfAnIsolationZone)
{
    control.set("containers/isolation/init_pid", "4711");
    EXPECT_EQ(query("isolation"), "4711");
    EXPECT_THAT(ownTexts(log), ElementsAre(line("I", "Client[fd : #] is connected[listen socket : #]")));
    (*registry)->getZone("isolation")->initPid = 42;
    EXPECT_EQ(query(std::string("isolation\0rest", 14)), "42");
}

TEST_F(ZoneMonitorTest, PrintsTheNumberThatItGets)
{
    control.set("containers/isolation/init_pid", "-1");
    EXPECT_EQ(query("isolation"), "-1");
}

TEST_F(ZoneMonitorTest, TellsNoInitPidOfTheOtherKinds)
{
    for (const std::string name : {"hybrid", "protection", "nobody", ""}) {
        EXPECT_EQ(query(name), "0") << name;
        EXPECT_EQ(ownTexts(log).back(), "E [zone-monitor] There is no access permission to protection zone(" +
                                            name + ") - Operation is not permitted");
    }
}

TEST_F(ZoneMonitorTest, TakesNoMoreThanSixtyFourBytesOfAName)
{
    const std::string name(70, 'n');
    EXPECT_EQ(query(name), "0");
    EXPECT_THAT(ownTexts(log).back(), HasSubstr("protection zone(" + std::string(64, 'n') + ")"));
}

TEST_F(ZoneMonitorTest, OutlivesAClientThatIsGone)
{
    {
        const UniqueFd client = connectTo(QUERIES, sizeof(sockaddr_un));
        ASSERT_EQ(write(client.get(), "hybrid", 6), 6);
    }
    EXPECT_EQ(monitor->drain(), 1);
    EXPECT_EQ(query("hybrid"), "0");
}

TEST_F(ZoneMonitorTest, EndsTheQueriesAtAnAcceptThatFails)
{
    GIOChannel* channel = g_io_channel_unix_new(fifo.get()); // no socket
    EXPECT_FALSE(ZoneMonitor::initPidResponseCallback(channel, G_IO_IN, monitor));
    EXPECT_THAT(ownTexts(log),
                ElementsAre(line("E", "Failed to accept client connection[listen socket : #]")));
    g_io_channel_unref(channel);
}
