#include "tests/ZoneCore/ZoneMonitorFixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

using namespace ZoneCore;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;
using ZoneTest::atEnd;
using ZoneTest::by;
using ZoneTest::called;
using ZoneTest::connectTo;
using ZoneTest::line;
using ZoneTest::listenerAt;
using ZoneTest::LXC_FROZEN;
using ZoneTest::numberAfter;
using ZoneTest::ownTexts;
using ZoneTest::QUERIES;
using ZoneTest::received;
using ZoneTest::said;
using ZoneTest::STATE;
using ZoneTest::SUBSCRIBERS;
using ZoneTest::ZoneMonitorTest;

namespace {

using Texts = std::vector<std::string>;

/// The steps of an acceptance, and the monitor while they are traced.
class ZoneMonitorAcceptance : public ZoneMonitorTest
{
protected:
    /// Has the monitor accept a client. @return all that it called and wrote
    Texts accept()
    {
        client = connectTo(SUBSCRIBERS);
        calls.trace();
        log.clear();
        EXPECT_TRUE(g_main_context_iteration(monitor->context(), FALSE));
        calls.reset();
        listenFd = listenerAt(SUBSCRIBERS);
        clientFd = numberAfter(log, "] Client[fd : ");
        return ownTexts(log);
    }
    /// What a whole acceptance calls and writes.
    [[nodiscard]] Texts steps() const
    {
        return {
            said("I", "server accept IO event is received[fd : %d, count : 0]", listenFd),
            called("accept", listenFd),
            said("I", "Client[fd : %d] is connected[listen socket : %d]", clientFd, listenFd),
            called("fcntl", clientFd, F_SETFD, FD_CLOEXEC),
            "I Process Permission is allowed [0 <-> 0], [fd : " + std::to_string(clientFd) + "]",
            called("g_io_channel_unix_new", clientFd),
            "D g_io_channel_get_flags()",
            called("g_io_channel_set_flags",
                   G_IO_FLAG_IS_READABLE | G_IO_FLAG_IS_WRITABLE | G_IO_FLAG_NONBLOCK),
            said("I", "G_IO_FLAG_NONBLOCK flag is set for client connection[client fd : %d, count : 0]",
                 clientFd),
            called("g_io_create_watch", clientFd, G_IO_IN | G_IO_PRI | G_IO_HUP),
            "D g_source_attach()",
            "D g_source_unref()",
            said("I", "IO(%d) watcher is added to Thread Context", clientFd),
            said("I", "client connection is added to GIO Channel List[client fd : %d, count : 1]", clientFd),
        };
    }
    /// Those up to a call, and what follows instead of the others.
    [[nodiscard]] Texts stepsUntil(const std::string& call, const Texts& rest) const
    {
        Texts result;
        for (const std::string& step : steps()) {
            result.push_back(step);
            if (step.rfind("D " + call + "(", 0) == 0) {
                break;
            }
        }
        result.insert(result.end(), rest.begin(), rest.end());
        return result;
    }
    /// A record that names both descriptors.
    [[nodiscard]] std::string failed(const std::string& what) const
    {
        return said("E", "Failed to %s[listen socket : %d, client socket : %d]", what.c_str(), listenFd,
                    clientFd);
    }
    /// The client is gone, and the next one is let in.
    void expectOnlyTheNextOneListed()
    {
        EXPECT_TRUE(atEnd(client));
        log.clear();
        const UniqueFd next = subscribe();
        EXPECT_THAT(relay(STATE, "hybrid", LXC_FROZEN),
                    Contains(said("I", "hybrid => FROZEN message is notified to [fd : %d, count : 1]",
                                  subscriberFd)));
    }

    UniqueFd client;
    int listenFd = -1;
    int clientFd = -1;
};

} // namespace

// Subscribers.

TEST_F(ZoneMonitorAcceptance, LetsASubscriberInStepByStep)
{
    const Texts texts = accept();
    EXPECT_THAT(texts, ElementsAreArray(steps()));
    EXPECT_EQ(fcntl(clientFd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(clientFd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
}

TEST_F(ZoneMonitorAcceptance, CountsTheSubscribersThatAreThere)
{
    const UniqueFd first = subscribe();
    const Texts texts = accept();
    EXPECT_EQ(texts.front(), said("I", "server accept IO event is received[fd : %d, count : 1]", listenFd));
    EXPECT_THAT(texts, Contains(said("I",
                                     "G_IO_FLAG_NONBLOCK flag is set for client connection[client fd : %d, "
                                     "count : 1]",
                                     clientFd)));
    EXPECT_EQ(
        texts.back(),
        said("I", "client connection is added to GIO Channel List[client fd : %d, count : 2]", clientFd));
}

TEST_F(ZoneMonitorAcceptance, ReportsAnAcceptThatFailsAndGoesOn)
{
    calls.fail("accept(", EMFILE);
    const Texts texts = accept();
    EXPECT_THAT(texts, ElementsAreArray(stepsUntil(
                           "accept",
                           {said("E", "Failed to accept client connection[listen socket : %d]", listenFd)})));
    EXPECT_EQ(monitor->drain(), 1) << "it still waits to be let in";
    EXPECT_THAT(ownTexts(log).back(),
                line("I", "client connection is added to GIO Channel List[client fd : #, count : 1]"));
}

TEST_F(ZoneMonitorAcceptance, ClosesAClientThatAProgramItStartsWouldInherit)
{
    calls.fail("fcntl(", EBADF);
    const Texts texts = accept();
    EXPECT_THAT(texts, ElementsAreArray(stepsUntil("fcntl", {failed("set close-on-exec on client connection"),
                                                             called("close", clientFd)})));
    expectOnlyTheNextOneListed();
}

TEST_F(ZoneMonitorAcceptance, ClosesAClientForWhichThereIsNoChannel)
{
    calls.fail("g_io_channel_unix_new(");
    const Texts texts = accept();
    EXPECT_THAT(texts, ElementsAreArray(stepsUntil(
                           "g_io_channel_unix_new",
                           {failed("create GIOChannel for client connection"), called("close", clientFd)})));
    expectOnlyTheNextOneListed();
}

TEST_F(ZoneMonitorAcceptance, ClosesAClientThatMightBlock)
{
    calls.fail("g_io_channel_set_flags(", EINVAL);
    const Texts texts = accept();
    EXPECT_THAT(texts, ElementsAreArray(stepsUntil(
                           "g_io_channel_set_flags",
                           {said("E", "Failed to set flags for GIOChannel[flags : %d, status : %d]",
                                 G_IO_FLAG_NONBLOCK, G_IO_STATUS_ERROR),
                            by("E", "Error Message : Invalid argument"),
                            failed("set non blocking socket on client connection"),
                            called("g_io_channel_unref", clientFd), called("close", clientFd),
                            said("I", "GIO Channel is destroyed[fd : %d]", clientFd)})));
    expectOnlyTheNextOneListed();
}

TEST_F(ZoneMonitorAcceptance, SaysNoMoreThanTheStatusWithoutAnErrorObject)
{
    calls.give("g_io_channel_set_flags(", G_IO_STATUS_AGAIN);
    const Texts texts = accept();
    EXPECT_THAT(texts, ElementsAreArray(stepsUntil(
                           "g_io_channel_set_flags",
                           {said("E", "Failed to set flags for GIOChannel[flags : %d, status : %d]",
                                 G_IO_FLAG_NONBLOCK, G_IO_STATUS_AGAIN),
                            failed("set non blocking socket on client connection"),
                            called("g_io_channel_unref", clientFd), called("close", clientFd),
                            said("I", "GIO Channel is destroyed[fd : %d]", clientFd)})));
}

TEST_F(ZoneMonitorAcceptance, LeavesTheFlagsOfAChannelThatDoesNotBlock)
{
    calls.give("g_io_channel_get_flags(", G_IO_FLAG_NONBLOCK | G_IO_FLAG_IS_READABLE);
    const Texts texts = accept();
    EXPECT_THAT(texts, Not(Contains(HasSubstr("g_io_channel_set_flags"))));
    EXPECT_EQ(
        texts.back(),
        said("I", "client connection is added to GIO Channel List[client fd : %d, count : 1]", clientFd));
}

TEST_F(ZoneMonitorAcceptance, ClosesAClientThatCannotBeWatched)
{
    calls.fail("g_io_create_watch(");
    const Texts texts = accept();
    EXPECT_THAT(texts,
                ElementsAreArray(stepsUntil(
                    "g_io_create_watch",
                    {by("E", "Failed to create gsource for io watch - /zone-test"),
                     failed("add client watcher to thread context"), called("g_io_channel_unref", clientFd),
                     called("close", clientFd), said("I", "GIO Channel is destroyed[fd : %d]", clientFd)})));
    expectOnlyTheNextOneListed();
}

TEST_F(ZoneMonitorAcceptance, ClosesAClientOfAnotherUser)
{
    ASSERT_EQ(seteuid(65534), 0);
    client = connectTo(SUBSCRIBERS);
    ASSERT_EQ(seteuid(0), 0);
    calls.trace();
    log.clear();
    EXPECT_EQ(monitor->drain(), 1);
    calls.reset();
    const Texts texts = ownTexts(log);
    const int refused = numberAfter(log, "] Client[fd : ");
    ASSERT_GE(texts.size(), 2U);
    EXPECT_THAT(Texts(texts.end() - 2, texts.end()),
                ElementsAre("E Process Permission is not matched [65534 <-> 0], [fd : " +
                                std::to_string(refused) + "]",
                            called("close", refused)));
    expectOnlyTheNextOneListed();
}

TEST_F(ZoneMonitorTest, ReadsAndIgnoresWhatASubscriberSends)
{
    const UniqueFd client = subscribe();
    ASSERT_EQ(write(client.get(), "abcdef", 6), 6);
    EXPECT_EQ(monitor->drain(), 2); // four bytes a wake-up
    const std::string event = said("I", "client IO event is received[fd : %d, count : 1]", subscriberFd);
    EXPECT_THAT(ownTexts(log),
                ElementsAre(event, said("I", "read data from clients[%d] - abcd", subscriberFd), event,
                            said("I", "read data from clients[%d] - ef", subscriberFd)));
    static_cast<void>(relay(STATE, "hybrid", LXC_FROZEN));
    EXPECT_EQ(received(client).size(), sizeof(lxc_msg));
}

TEST_F(ZoneMonitorTest, KeepsASubscriberOfWhichNothingCanBeRead)
{
    const UniqueFd client = subscribe();
    ASSERT_EQ(write(client.get(), "abcd", 4), 4);
    calls.fail("read(", EAGAIN);
    EXPECT_EQ(monitor->drain(), 2); // and reads it in the next wake-up
    const std::string event = said("I", "client IO event is received[fd : %d, count : 1]", subscriberFd);
    EXPECT_THAT(ownTexts(log),
                ElementsAre(event, event, said("I", "read data from clients[%d] - abcd", subscriberFd)));
}

TEST_F(ZoneMonitorTest, ReadsNothingWithoutInput)
{
    GIOChannel* channel = g_io_channel_unix_new(STDIN_FILENO);
    EXPECT_TRUE(ZoneMonitor::clientIOEventCallback(channel, G_IO_PRI, monitor));
    EXPECT_THAT(ownTexts(log), ElementsAre(by("I", "client IO event is received[fd : 0, count : 0]")));
    g_io_channel_unref(channel);
}

TEST_F(ZoneMonitorTest, RefusesAChannelWithoutADescriptor)
{
    GIOChannel* channel = g_io_channel_unix_new(-1);
    EXPECT_FALSE(ZoneMonitor::clientIOEventCallback(channel, G_IO_HUP, monitor));
    EXPECT_THAT(ownTexts(log), ElementsAre(by("E", "fd of current GIOChannel source is invalid")));
    g_io_channel_unref(channel);
}

TEST_F(ZoneMonitorTest, DropsASubscriberThatHangsUp)
{
    const UniqueFd stays = subscribe();
    UniqueFd leaves = subscribe();
    const int fd = subscriberFd;
    const UniqueFd staysAsWell = subscribe();
    leaves.reset();
    calls.trace();
    EXPECT_EQ(monitor->drain(), 1);
    calls.reset();
    EXPECT_THAT(
        ownTexts(log),
        ElementsAre(said("I", "client IO event is received[fd : %d, count : 3]", fd), called("read", fd, 4),
                    said("I", "client socket connection is broken(Hung up)[fd : %d]", fd),
                    said("I", "Remove client connections[%d] - [count : 3]", fd),
                    said("I", "Found client connection from client GIO List[client socket : %d]", fd),
                    by("I", "Current client connection count[count : 2]"), called("g_io_channel_unref", fd),
                    called("close", fd), said("I", "GIO Channel is destroyed[fd : %d]", fd)));
    EXPECT_THAT(relay(STATE, "hybrid", LXC_FROZEN),
                Contains(line("I", "hybrid => FROZEN message is notified to [fd : #, count : 2]")).Times(2));
    EXPECT_EQ(received(stays).size(), sizeof(lxc_msg));
    EXPECT_EQ(received(staysAsWell).size(), sizeof(lxc_msg));
}

TEST_F(ZoneMonitorTest, DestroysAChannelThatIsNotListed)
{
    const UniqueFd stays = subscribe();
    const int fd = dup(stays.get());
    GIOChannel* channel = g_io_channel_unix_new(fd);
    EXPECT_FALSE(ZoneMonitor::clientIOEventCallback(channel, G_IO_HUP, monitor));
    EXPECT_THAT(ownTexts(log),
                ElementsAre(said("I", "client IO event is received[fd : %d, count : 1]", fd),
                            said("I", "client socket connection is broken(Hung up)[fd : %d]", fd),
                            said("I", "Remove client connections[%d] - [count : 1]", fd),
                            by("I", "Current client connection count[count : 1]"),
                            said("I", "GIO Channel is destroyed[fd : %d]", fd)));
}

TEST_F(ZoneMonitorTest, KeepsASubscriberThatOnlyListens)
{
    UniqueFd client = subscribe();
    ASSERT_EQ(shutdown(client.get(), SHUT_WR), 0);
    EXPECT_EQ(monitor->drain(), 1); // and does not spin
    EXPECT_THAT(ownTexts(log),
                ElementsAre(said("I", "client IO event is received[fd : %d, count : 1]", subscriberFd),
                            said("I", "IO(%d) watcher is added to Thread Context", subscriberFd)));
    static_cast<void>(relay(STATE, "hybrid", LXC_FROZEN));
    EXPECT_EQ(received(client).size(), sizeof(lxc_msg));
    client.reset();
    log.clear();
    EXPECT_EQ(monitor->drain(), 1);
    EXPECT_THAT(ownTexts(log), Contains(line("I", "Current client connection count[count : 0]")));
}

TEST_F(ZoneMonitorTest, KeepsItsWatcherOfASubscriberThatCannotBeWatchedForItsHangUpAlone)
{
    UniqueFd client = subscribe();
    ASSERT_EQ(shutdown(client.get(), SHUT_WR), 0);
    calls.fail("g_io_create_watch(");
    EXPECT_TRUE(g_main_context_iteration(monitor->context(), FALSE));
    EXPECT_THAT(ownTexts(log),
                ElementsAre(said("I", "client IO event is received[fd : %d, count : 1]", subscriberFd),
                            by("E", "Failed to create gsource for io watch - /zone-test")));
    client.reset();
    EXPECT_EQ(monitor->drain(), 1);
    EXPECT_THAT(ownTexts(log), Contains(by("I", "Current client connection count[count : 0]")));
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

TEST_F(ZoneMonitorTest, AnswersAQueryStepByStep)
{
    (*registry)->getZone("isolation")->initPid = 4711;
    const UniqueFd client = connectTo(QUERIES, sizeof(sockaddr_un));
    ASSERT_EQ(write(client.get(), "isolation", 9), 9);
    calls.trace();
    log.clear();
    EXPECT_EQ(monitor->drain(), 1);
    calls.reset();
    const int listenFd = listenerAt(QUERIES);
    const int fd = numberAfter(log, "] Client[fd : ");
    EXPECT_THAT(ownTexts(log),
                ElementsAre(called("accept", listenFd),
                            said("I", "Client[fd : %d] is connected[listen socket : %d]", fd, listenFd),
                            called("recv", fd, 64, 0), called("send", fd, 4, MSG_NOSIGNAL),
                            called("close", fd)));
}

TEST_F(ZoneMonitorTest, TakesAFailedReceiveForAnEmptyName)
{
    calls.fail("recv(", ECONNRESET);
    EXPECT_EQ(query("isolation"), "0");
    EXPECT_EQ(ownTexts(log).back(), "E [zone-monitor] There is no access permission to protection zone() - "
                                    "Operation is not permitted");
}

TEST_F(ZoneMonitorTest, GoesOnAfterAnAnswerThatCannotBeSent)
{
    calls.fail("send(", EPIPE, 1); // the first one is the question
    EXPECT_EQ(query("hybrid"), "");
    EXPECT_EQ(query("hybrid"), "0");
}

TEST_F(ZoneMonitorTest, EndsTheQueriesAtAnAcceptThatFails)
{
    const UniqueFd client = connectTo(QUERIES, sizeof(sockaddr_un));
    calls.fail("accept(", EMFILE);
    EXPECT_EQ(monitor->drain(), 1);
    EXPECT_THAT(ownTexts(log), ElementsAre(said("E", "Failed to accept client connection[listen socket : %d]",
                                                listenerAt(QUERIES))));
    EXPECT_EQ(monitor->drain(), 0);
}
