#include "Doctor/Labels.h"

#include "Daemon/Names.h"

namespace Zonectl {

namespace {

constexpr const char* CLOSED = "!";
constexpr const char* OPEN = "_";
constexpr const char* SYSTEM = "System";

/// The labels of a kind's read-only and writable directory.
struct KindLabels
{
    const char* readOnly;
    bool readOnlyEnforced;
    const char* writable;
    bool writableEnforced;
};

[[nodiscard]] std::optional<KindLabels> labelsOf(ZUP::ZoneType kind)
{
    switch (kind) {
    case ZUP::ZONE_TYPE_HYBRID:
        return KindLabels{OPEN, false, OPEN, false};
    case ZUP::ZONE_TYPE_ISOLATION:
        return KindLabels{OPEN, false, SYSTEM, true};
    case ZUP::ZONE_TYPE_PROTECTION:
        return KindLabels{CLOSED, true, CLOSED, true};
    case ZUP::ZONE_TYPE_NONE:
        break;
    }
    return std::nullopt;
}

[[nodiscard]] LabelVerdict judgeMissing(const LabelRule& rule, const PathFacts& facts, bool smackKernel)
{
    if (rule.creatable.empty() || !facts.baseExists) {
        return LabelVerdict::Missing;
    }
    if (facts.readOnly) {
        return LabelVerdict::ReadOnly;
    }
    return rule.enforced && !smackKernel ? LabelVerdict::NoLabel : LabelVerdict::WillBeCreated;
}

} // namespace

bool isGood(LabelVerdict verdict)
{
    switch (verdict) {
    case LabelVerdict::Satisfied:
    case LabelVerdict::NotEnforced:
    case LabelVerdict::WillBeSet:
    case LabelVerdict::WillBeCreated:
        return true;
    case LabelVerdict::Missing:
    case LabelVerdict::NoLabel:
    case LabelVerdict::ReadOnly:
    case LabelVerdict::Unknown:
        break;
    }
    return false;
}

std::string_view verdictText(LabelVerdict verdict)
{
    switch (verdict) {
    case LabelVerdict::Satisfied:
        return "ok";
    case LabelVerdict::NotEnforced:
        return "ok, any label will do";
    case LabelVerdict::WillBeSet:
        return "set at the daemon's start";
    case LabelVerdict::WillBeCreated:
        return "made at the daemon's start";
    case LabelVerdict::Missing:
        return "missing";
    case LabelVerdict::NoLabel:
        return "needs a first label";
    case LabelVerdict::ReadOnly:
        return "read-only mount";
    case LabelVerdict::Unknown:
        return "cannot be seen by this user";
    }
    return "";
}

LabelVerdict judge(const LabelRule& rule, const PathFacts& facts, bool smackKernel)
{
    if (facts.hidden) {
        return LabelVerdict::Unknown;
    }
    if (!facts.exists) {
        return judgeMissing(rule, facts, smackKernel);
    }
    if (!rule.enforced) {
        return LabelVerdict::NotEnforced;
    }
    if (!facts.label) {
        return LabelVerdict::NoLabel;
    }
    if (rule.wanted.starts_with(*facts.label)) {
        return LabelVerdict::Satisfied;
    }
    return facts.readOnly ? LabelVerdict::ReadOnly : LabelVerdict::WillBeSet;
}

std::vector<LabelRule> daemonRules()
{
    return {
        {Names::RUN_DIRECTORY, CLOSED, true, "/run", Consequence::StartFails, ""},
        {Names::SECURE_DATA_DIRECTORY, CLOSED, true, Names::ZONE_DIRECTORY, Consequence::Logged, ""},
    };
}

std::vector<LabelRule> zoneRules(const std::string& lxcPath, const ContainerInfo& container)
{
    const std::optional<KindLabels> labels = labelsOf(container.kind);
    if (!labels) {
        return {};
    }
    const std::string readOnly = lxcPath + "/" + container.name;
    const std::string writable = "/opt" + lxcPath + "/" + container.name;
    const std::string base = "/opt" + lxcPath;
    return {
        {readOnly, labels->readOnly, labels->readOnlyEnforced, "", Consequence::ZoneRefused, container.name},
        {writable, labels->writable, labels->writableEnforced, base, Consequence::ZoneRefused,
         container.name},
        {writable + "/opt", OPEN, labels->writableEnforced, base, Consequence::ZoneRefused, container.name,
         true},
    };
}

PathFacts factsAbout(const LabelRule& rule, const Machine& machine)
{
    PathFacts facts;
    facts.hidden = machine.hidden(rule.path);
    facts.exists = machine.exists(rule.path);
    facts.label = machine.label(rule.path);
    facts.baseExists = !rule.creatable.empty() && machine.isDirectory(rule.creatable);
    facts.readOnly = machine.onReadOnlyMount(facts.exists ? rule.path : rule.creatable);
    return facts;
}

} // namespace Zonectl
