#include "Doctor/Doctor.h"
#include "AnotherUser.h"
#include "Doctor/FindingIds.h"
#include "TemporaryTree.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>

using namespace Zonectl;

namespace {

/// A system with one sound hybrid zone: the kind whose labels are not enforced.
void makeHybridZone(const TemporaryTree& tree, const std::string& name, const std::string& more = "")
{
    tree.write("/var/lib/lxc/" + name + "/config", "zone.container_type = hybrid\n"
                                                   "lxc.rootfs.path = /var/lib/lxc/" +
                                                       name + "\nlxc.cgroup.dir.container = lxc.payload/" +
                                                       name + "\nlxc.cgroup.dir.monitor = lxc.monitor/" +
                                                       name + "\nlxc.cgroup.dir.monitor.pivot = lxc.pivot\n" +
                                                       more);
    tree.makeDirectory("/opt/var/lib/lxc");
}

/// The finding of that name; null when there is none, or more than one.
[[nodiscard]] const Diagnosed* findingCalled(const Diagnosis& diagnosis, std::string_view id)
{
    const auto is = [id](const Diagnosed& finding) { return finding.id == id; };
    const auto found = std::find_if(diagnosis.findings.begin(), diagnosis.findings.end(), is);
    return std::count_if(diagnosis.findings.begin(), diagnosis.findings.end(), is) == 1 ? &*found : nullptr;
}

} // namespace

TEST(ControllerLists, TakesVersionOneWithoutNamedHierarchies)
{
    const std::vector<std::string> expected = {"cpu,cpuacct", "memory"};
    EXPECT_EQ(controllerLists("12:cpu,cpuacct:/\n11:memory:/user.slice\n1:name=systemd:/init.scope\n0::/\n"),
              expected);
    EXPECT_TRUE(controllerLists("").empty());
    EXPECT_TRUE(controllerLists("garbage\n1:\n").empty());
}

TEST(Examine, OneRefusedContainerBlocksTheAutomaticStart)
{
    const TemporaryTree tree;
    makeHybridZone(tree, "good");
    tree.write("/var/lib/lxc/bad/config", "lxc.rootfs.path = /r\n");
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    EXPECT_EQ(diagnosis.listed, 2U);
    ASSERT_EQ(diagnosis.refused.size(), 1U);
    EXPECT_EQ(diagnosis.refused[0].name, "bad");
    EXPECT_TRUE(diagnosis.automaticStartBlocked());
    EXPECT_EQ(findingCalled(diagnosis, FindingIds::AUTOSTART), nullptr);
}

TEST(Examine, NamesEverythingForWhichAContainerIsRefused)
{
    const TemporaryTree tree;
    tree.makeDirectory("/opt/var/lib/lxc");
    tree.write("/var/lib/lxc/bad/config", "lxc.start.auto = 1\n");
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    ASSERT_EQ(diagnosis.refused.size(), 1U);
    EXPECT_EQ(diagnosis.refused[0].reasons.size(), 2U) << "no kind and no root file system";
    const Diagnosed* first = findingCalled(diagnosis, FindingIds::CONTAINER_NO_KIND);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->message, "Failed to create the zone object...bad");
    const Diagnosed* second = findingCalled(diagnosis, FindingIds::CONTAINER_NO_ROOTFS);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->message, "") << "the daemon has stopped looking by then";
}

TEST(Examine, AMissingBaseIsToldOnce)
{
    const TemporaryTree tree;
    makeHybridZone(tree, "a");
    makeHybridZone(tree, "b");
    std::filesystem::remove_all(tree.root() + "/opt/var");
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    EXPECT_EQ(diagnosis.refused.size(), 2U);
    const auto count =
        std::count_if(diagnosis.findings.begin(), diagnosis.findings.end(), [](const Diagnosed& finding) {
            return finding.subject == "/opt/var/lib/lxc" && finding.severity == Severity::Problem;
        });
    EXPECT_EQ(count, 1);
    EXPECT_EQ(findingCalled(diagnosis, FindingIds::CONTAINER_LABEL), nullptr);
}

TEST(Examine, SoundContainersDoNotBlock)
{
    const TemporaryTree tree;
    makeHybridZone(tree, "good");
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    EXPECT_FALSE(diagnosis.automaticStartBlocked());
    EXPECT_NE(findingCalled(diagnosis, FindingIds::AUTOSTART), nullptr);
    EXPECT_NE(findingCalled(diagnosis, FindingIds::CONTAINER), nullptr);
    EXPECT_TRUE(diagnosis.hasProblems()) << "liblxc and the launcher are missing in this tree";
}

TEST(Examine, NoContainerAtAllIsAProblem)
{
    const TemporaryTree tree;
    EXPECT_NE(findingCalled(examine(Machine(tree.root())), FindingIds::LXC_PATH_MISSING), nullptr);
    tree.makeDirectory("/var/lib/lxc");
    EXPECT_NE(findingCalled(examine(Machine(tree.root())), FindingIds::CONTAINERS_NONE), nullptr);
}

TEST(Examine, WhatThisUserMayNotReadIsNeitherRefusedNorTaken)
{
    const TemporaryTree tree;
    makeHybridZone(tree, "good");
    makeHybridZone(tree, "closed");
    makeHybridZone(tree, "closed-too");
    tree.permit("/var/lib/lxc/closed/config", 0600);
    tree.permit("/var/lib/lxc/closed-too", 0700);
    const AnotherUser user;
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    EXPECT_EQ(diagnosis.listed, 3U);
    EXPECT_EQ(diagnosis.unjudged, 2U);
    EXPECT_FALSE(diagnosis.automaticStartBlocked());
    EXPECT_EQ(findingCalled(diagnosis, FindingIds::AUTOSTART), nullptr);
    const Diagnosed* note = findingCalled(diagnosis, FindingIds::CONTAINER_UNREADABLE);
    ASSERT_NE(note, nullptr) << "one for both";
    EXPECT_EQ(note->severity, Severity::Note);
    EXPECT_NE(note->text.find("closed, closed-too"), std::string::npos) << note->text;
    EXPECT_EQ(note->remedy, "sudo zonectl doctor --root " + tree.root());
}

TEST(Examine, AContainerWithAHiddenDirectoryIsNotJudged)
{
    const TemporaryTree tree;
    makeHybridZone(tree, "good");
    tree.makeDirectory("/opt/var/lib/lxc/good");
    tree.permit("/opt/var/lib/lxc/good", 0700);
    const AnotherUser user;
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    EXPECT_EQ(diagnosis.unjudged, 1U);
    EXPECT_FALSE(diagnosis.automaticStartBlocked());
    EXPECT_EQ(findingCalled(diagnosis, FindingIds::CONTAINER), nullptr);
    EXPECT_NE(findingCalled(diagnosis, FindingIds::CONTAINER_UNREADABLE), nullptr);
    EXPECT_EQ(findingCalled(diagnosis, FindingIds::AUTOSTART), nullptr);
}

TEST(Examine, WarnsOfTheDistributionsOwnUnits)
{
    const TemporaryTree tree;
    const std::string wants = "/etc/systemd/system/multi-user.target.wants";
    tree.makeDirectory(wants);
    // Below another root such a link leads nowhere, and counts all the same.
    std::filesystem::create_symlink("/nowhere", tree.root() + wants + "/lxc-monitord.service");
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    EXPECT_NE(findingCalled(diagnosis, FindingIds::UNIT_MONITORD), nullptr);
    EXPECT_EQ(findingCalled(diagnosis, FindingIds::UNIT_LXC), nullptr);
}

TEST(Examine, WarnsOfControlGroupsThatAreNotCleanedUp)
{
    const TemporaryTree tree;
    makeHybridZone(tree, "good", "lxc.cgroup.dir.container = elsewhere\n");
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    const Diagnosed* finding = findingCalled(diagnosis, FindingIds::CONTAINER_CGROUPS);
    ASSERT_NE(finding, nullptr);
    ASSERT_EQ(finding->repairs.size(), 1U);
    EXPECT_EQ(finding->repairs[0].value, "lxc.cgroup.dir.container = lxc.payload/good\n")
        << "the other two keys are as they should be";
}

TEST(Examine, WarnsOfAValueThatDoesNotStartAutomatically)
{
    const TemporaryTree tree;
    makeHybridZone(tree, "good", "lxc.start.auto = 2\n");
    EXPECT_NE(findingCalled(examine(Machine(tree.root())), FindingIds::CONTAINER_AUTOSTART), nullptr);
}

TEST(Examine, AWordForTheAutomaticStartIsMendedInItsOwnSense)
{
    const std::map<std::string, std::string> meant = {{"yes", "1"}, {"TRUE", "1"},  {"on", "1"},
                                                      {"no", "0"},  {"False", "0"}, {"off", "0"}};
    for (const auto& [word, value] : meant) {
        const TemporaryTree tree;
        makeHybridZone(tree, "good", "lxc.start.auto = " + word + "\n");
        const Diagnosis diagnosis = examine(Machine(tree.root()));
        const Diagnosed* finding = findingCalled(diagnosis, FindingIds::CONTAINER_AUTOSTART);
        ASSERT_NE(finding, nullptr) << word;
        ASSERT_EQ(finding->repairs.size(), 1U) << word;
        EXPECT_EQ(finding->repairs[0].value, "lxc.start.auto = " + value) << word;
    }
}

TEST(Examine, AnotherValueForTheAutomaticStartIsLeftToSomebodyWhoKnows)
{
    for (const char* value : {"2", "-1", "yes!", "maybe", "01"}) {
        const TemporaryTree tree;
        makeHybridZone(tree, "good", std::string("lxc.start.auto = ") + value + "\n");
        const Diagnosis diagnosis = examine(Machine(tree.root()));
        const Diagnosed* finding = findingCalled(diagnosis, FindingIds::CONTAINER_AUTOSTART);
        ASSERT_NE(finding, nullptr) << value;
        EXPECT_TRUE(finding->repairs.empty()) << value;
        EXPECT_EQ(finding->remedy,
                  "lxc.start.auto in " + tree.root() +
                      "/var/lib/lxc/good/config: 1 starts it automatically, 0 on request only");
    }
}

TEST(Examine, ALinkThatTheZoneMayHaveMadeIsNotLabelled)
{
    const TemporaryTree tree;
    tree.write("/var/lib/lxc/nav/config", "zone.container_type = isolation\n");
    tree.makeDirectory("/opt/var/lib/lxc/nav");
    tree.makeDirectory("/srv");
    const std::string path = "/opt/var/lib/lxc/nav/opt";
    std::filesystem::create_symlink("../../../../../srv", tree.root() + path);
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    const auto finding =
        std::find_if(diagnosis.findings.begin(), diagnosis.findings.end(), [&path](const Diagnosed& each) {
            return each.text.find(path + ":") != std::string::npos;
        });
    ASSERT_NE(finding, diagnosis.findings.end());
    EXPECT_NE(finding->text.find("a symbolic link stands there, to ../"), std::string::npos);
    EXPECT_EQ(finding->remedy, "rm " + tree.root() + path + " # the zone itself may have made the link");
    EXPECT_TRUE(finding->repairs.empty());
}

TEST(Examine, RemediesForAnotherRootNameItsFiles)
{
    const TemporaryTree tree;
    makeHybridZone(tree, "good", "lxc.start.auto = yes\n");
    for (const Diagnosed& finding : examine(Machine(tree.root())).findings) {
        if (!finding.repairs.empty()) {
            EXPECT_NE(finding.remedy.find(tree.root() + "/"), std::string::npos) << finding.remedy;
        }
    }
}
