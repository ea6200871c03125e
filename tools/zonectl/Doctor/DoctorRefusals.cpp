#include "Daemon/Names.h"
#include "Daemon/ZoneWords.h"
#include "Doctor/Examination.h"

namespace Zonectl {

namespace {

/// What the daemon writes while it looks at one zone begins so; the thread's number is known only then.
[[nodiscard]] std::string threadPrefix(const std::string& name)
{
    return "[" + name + ":%d] ";
}

/// Looks at a container the way the daemon does when it decides whether to take it.
class RefusalCheck
{
public:
    RefusalCheck(Examination& wholeExamination, const ContainerInfo& checked)
        : examination(wholeExamination), container(checked),
          config(configPath(wholeExamination.listing.lxcPath, checked.name))
    {
        refusal.name = container.name;
    }

    /// Returns whether the daemon takes it, as far as this user may see.
    [[nodiscard]] bool run()
    {
        checkKind();
        checkPaths();
        checkRootfs();
        if (!refusal.reasons.empty()) {
            examination.diagnosis.refused.push_back(std::move(refusal));
            return false;
        }
        if (!hiddenPath.empty()) {
            addUnjudged();
        }
        return hiddenPath.empty();
    }

private:
    /// Adds a reason for which the daemon refuses the container. It writes of the first and looks no further.
    void refuse(Diagnosed finding, std::string reason = "")
    {
        if (!refusal.reasons.empty()) {
            finding.message.clear();
        }
        refusal.reasons.push_back(reason.empty() ? finding.text : std::move(reason));
        finding.severity = Severity::Problem;
        finding.text = "is refused: " + finding.text;
        finding.subject = container.name;
        examination.add(std::move(finding));
    }

    void checkKind()
    {
        if (container.kind != ZUP::ZONE_TYPE_NONE) {
            return;
        }
        if (container.kindIsUntold()) { // which is the library's fault, and told with it
            refusal.reasons.emplace_back("liblxc does not tell its kind");
            return;
        }
        Diagnosed finding{.id = FindingIds::CONTAINER_NO_KIND,
                          .text = "its configuration names no valid kind (zone.container_type)",
                          .remedy = shellCommand(examination.machine.rootDirectory(),
                                                 {appendedTo(config, "zone.container_type = hybrid\n")}) +
                                    " # or isolation, or protection",
                          .message = "Failed to create the zone object..." + container.name};
        if (!container.kindText.empty()) {
            finding.id = FindingIds::CONTAINER_BAD_KIND;
            finding.text =
                "its configuration names no valid kind: zone.container_type = " + container.kindText;
        } else if (kindFromText(container.includedKind) != ZUP::ZONE_TYPE_NONE) {
            finding.id = FindingIds::CONTAINER_INCLUDED_KIND;
            finding.text = "its kind stands in an included file, where it does not count";
            finding.remedy.clear();
            finding.repairs = {appendedTo(config, "zone.container_type = " + container.includedKind + "\n")};
        }
        refuse(std::move(finding));
    }

    void checkPaths()
    {
        const bool baseExists =
            examination.machine.isDirectory(Names::WRITABLE_PREFIX + examination.listing.lxcPath);
        for (const LabelRule& rule : zoneRules(examination.listing.lxcPath, container)) {
            const LabelVerdict verdict =
                judge(rule, factsAbout(rule, examination.machine), examination.smackKernel);
            if (verdict == LabelVerdict::Unknown) {
                hiddenPath = rule.path;
            }
            if (isGood(verdict) || verdict == LabelVerdict::Unknown) {
                continue;
            }
            const std::string reason = rule.path + ": " + std::string(verdictText(verdict));
            if (!rule.creatable.empty() && !baseExists) { // told with the directory that is missing
                refusal.reasons.push_back(reason);
            } else {
                refuse(badPath(rule, verdict), reason);
            }
        }
    }

    [[nodiscard]] Diagnosed badPath(const LabelRule& rule, LabelVerdict verdict) const
    {
        Diagnosed finding{.id = FindingIds::CONTAINER_LABEL,
                          .text = rule.path + ": " + std::string(verdictText(verdict)),
                          .repairs = repairsOf(rule, verdict, examination.smackKernel)};
        if (const std::string target = examination.machine.linkTarget(rule.path);
            rule.inZone && !target.empty()) { // whatever the zone chose is not labelled
            finding.text += ": a symbolic link stands there, to " + target;
            finding.remedy =
                "rm " + examination.word(rule.path) + " # the zone itself may have made the link";
            finding.repairs.clear();
        }
        const std::string unlabelled =
            "Failed to get smack label of \"" + rule.path + "\"(\"" + rule.wanted + "\") - ";
        if (verdict == LabelVerdict::ReadOnly) {
            finding.id = FindingIds::CONTAINER_READ_ONLY;
            finding.remedy = remountCommand(examination, rule.path);
            finding.message = rule.creatable.empty() ? threadPrefix(container.name) +
                                                           "This is RO directory(" + rule.path + ")..."
                                                     : "";
        } else if (examination.machine.cannotHoldLabels(rule.path)) {
            finding.id = FindingIds::CONTAINER_ATTRIBUTES;
            finding.text = rule.path + ": its file system holds no extended attributes";
            finding.remedy = "mount one with them there, as ext4 or a tmpfs with CONFIG_TMPFS_XATTR";
            finding.message = unlabelled + "\"Operation not supported\"";
            finding.repairs.clear();
        } else {
            finding.message = unlabelled + "\"No data available\"";
        }
        return finding;
    }

    void checkRootfs()
    {
        const std::string usual = examination.listing.lxcPath + "/" + container.name + "/rootfs";
        const bool usualExists = examination.machine.isDirectory(usual);
        if (container.rootfsPath.empty()) {
            Diagnosed finding{.id = FindingIds::CONTAINER_NO_ROOTFS,
                              .text = "its configuration names no lxc.rootfs.path",
                              .message = "Failed to get \"lxc.rootfs\" value..." + container.name};
            if (usualExists) {
                finding.repairs = {appendedTo(config, "lxc.rootfs.path = dir:" + usual + "\n")};
            } else {
                finding.remedy = "a line 'lxc.rootfs.path = dir:DIRECTORY' in " + config;
            }
            refuse(std::move(finding));
        }
    }

    /// Nothing speaks against it, and not everything was seen.
    void addUnjudged()
    {
        ++examination.diagnosis.unjudged;
        examination.add({.id = FindingIds::CONTAINER_UNREADABLE,
                         .subject = container.name,
                         .severity = Severity::Note,
                         .text = "cannot be judged: " + hiddenPath + " cannot be seen by this user",
                         .remedy = examination.asRoot()});
    }

    Examination& examination;
    const ContainerInfo& container;
    std::string config;
    RefusedContainer refusal{};
    std::string hiddenPath{}; ///< one that this user may not see; empty when there is none
};

} // namespace

bool checkRefusals(Examination& examination, const ContainerInfo& container)
{
    return RefusalCheck(examination, container).run();
}

} // namespace Zonectl
