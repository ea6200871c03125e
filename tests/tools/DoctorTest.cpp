#include "Doctor.h"
#include "TemporaryTree.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace Zonectl;

namespace {

/// A system with one sound hybrid zone: the kind whose labels are not enforced.
void makeHybridZone(const TemporaryTree& tree, const std::string& name)
{
    tree.write("/var/lib/lxc/" + name + "/config", "zone.container_type = hybrid\n"
                                                   "lxc.rootfs.path = /var/lib/lxc/" +
                                                       name + "\nlxc.cgroup.dir.container = lxc.payload/" +
                                                       name + "\n");
    tree.makeDirectory("/opt/var/lib/lxc");
}

[[nodiscard]] const Finding* findingAbout(const Diagnosis& diagnosis, const std::string& subject)
{
    const auto found = std::find_if(diagnosis.findings.begin(), diagnosis.findings.end(),
                                    [&](const Finding& finding) { return finding.subject == subject; });
    return found == diagnosis.findings.end() ? nullptr : &*found;
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

TEST(RefusalReasons, NamesEverythingThatIsWrong)
{
    const TemporaryTree tree;
    ContainerInfo container;
    container.name = "x";
    EXPECT_EQ(refusalReasons(Machine(tree.root()), "/var/lib/lxc", container, false).size(), 2U)
        << "no kind and no root file system";
    container.kind = ZUP::ZONE_TYPE_HYBRID;
    container.rootfsPath = "/r";
    const auto reasons = refusalReasons(Machine(tree.root()), "/var/lib/lxc", container, false);
    ASSERT_EQ(reasons.size(), 3U) << "none of the three directories is there";
    EXPECT_EQ(reasons[0], "/var/lib/lxc/x: missing");
}

TEST(RefusalReasons, AHybridZoneNeedsNoLabel)
{
    const TemporaryTree tree;
    makeHybridZone(tree, "x");
    const Machine machine(tree.root());
    EXPECT_TRUE(
        refusalReasons(machine, "/var/lib/lxc", readContainer(machine, "/var/lib/lxc", "x"), false).empty());
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
    const Finding* finding = findingAbout(diagnosis, "automatic start");
    ASSERT_NE(finding, nullptr);
    EXPECT_EQ(finding->severity, Severity::Problem);
}

TEST(Examine, SoundContainersDoNotBlock)
{
    const TemporaryTree tree;
    makeHybridZone(tree, "good");
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    EXPECT_FALSE(diagnosis.automaticStartBlocked());
    ASSERT_NE(findingAbout(diagnosis, "automatic start"), nullptr);
    EXPECT_EQ(findingAbout(diagnosis, "automatic start")->severity, Severity::Ok);
    EXPECT_EQ(findingAbout(diagnosis, "good")->severity, Severity::Ok);
    EXPECT_TRUE(diagnosis.hasProblems()) << "liblxc and the launcher are missing in this tree";
}

TEST(Examine, NoContainerAtAllIsAProblem)
{
    const TemporaryTree tree;
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    ASSERT_NE(findingAbout(diagnosis, "containers"), nullptr);
    EXPECT_EQ(findingAbout(diagnosis, "containers")->severity, Severity::Problem);
}

TEST(Examine, WarnsOfTheDistributionsOwnUnits)
{
    const TemporaryTree tree;
    const std::string wants = "/etc/systemd/system/multi-user.target.wants";
    tree.makeDirectory(wants);
    // Below another root such a link leads nowhere, and counts all the same.
    std::filesystem::create_symlink("/nowhere", tree.root() + wants + "/lxc-monitord.service");
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    EXPECT_NE(findingAbout(diagnosis, "lxc-monitord.service"), nullptr);
    EXPECT_EQ(findingAbout(diagnosis, "lxc.service"), nullptr);
}

TEST(Examine, WarnsOfControlGroupsThatAreNotCleanedUp)
{
    const TemporaryTree tree;
    makeHybridZone(tree, "good");
    tree.write("/var/lib/lxc/good/config", "zone.container_type = 2\nlxc.rootfs.path = /var/lib/lxc/good\n");
    const Diagnosis diagnosis = examine(Machine(tree.root()));
    EXPECT_TRUE(std::any_of(diagnosis.findings.begin(), diagnosis.findings.end(), [](const Finding& finding) {
        return finding.severity == Severity::Warning &&
               finding.remedy.find("lxc.cgroup.dir.container = lxc.payload/good") != std::string::npos;
    }));
}
