#include "Watch/Comparison.h"

#include <algorithm>
#include <map>
#include <utility>

namespace Zonectl {

namespace {

constexpr Micros NOTABLE_DIFFERENCE = 100000;
constexpr Micros NOTABLE_PART = 5; ///< a fifth
/// Longer sequences are not worth the memory: what differs in them is then shown as all missing and all new.
constexpr std::size_t LARGEST_GRID = std::size_t{4} << 20U;

using Steps = std::vector<Step>;

/// The part of two sequences that is left without their common beginning and end.
struct Middle
{
    std::size_t begin = 0;
    std::size_t endA;
    std::size_t endB;

    Middle(const Steps& a, const Steps& b) : endA(a.size()), endB(b.size())
    {
        while (begin < endA && begin < endB && a[begin].state == b[begin].state) {
            ++begin;
        }
        while (endA > begin && endB > begin && a[endA - 1].state == b[endB - 1].state) {
            --endA;
            --endB;
        }
    }

    [[nodiscard]] std::size_t lengthA() const { return endA - begin; }
    [[nodiscard]] std::size_t lengthB() const { return endB - begin; }
};

/// For each pair of places the length of the longest sequence that what follows them has in common.
class CommonLengths
{
public:
    CommonLengths(const Steps& a, const Steps& b, const Middle& middle)
        : width(middle.lengthB() + 1), lengths((middle.lengthA() + 1) * width, 0)
    {
        for (std::size_t i = middle.lengthA(); i-- > 0;) {
            for (std::size_t j = middle.lengthB(); j-- > 0;) {
                const bool equal = a[middle.begin + i].state == b[middle.begin + j].state;
                lengths[i * width + j] = equal ? at(i + 1, j + 1) + 1 : std::max(at(i + 1, j), at(i, j + 1));
            }
        }
    }

    [[nodiscard]] unsigned int at(std::size_t i, std::size_t j) const { return lengths[i * width + j]; }

private:
    std::size_t width;
    std::vector<unsigned int> lengths;
};

void alignMiddle(const Steps& a, const Steps& b, const Middle& middle, std::vector<StepPair>& pairs)
{
    const bool tooLong = middle.lengthB() > 0 && middle.lengthA() > LARGEST_GRID / middle.lengthB();
    const CommonLengths common =
        tooLong ? CommonLengths({}, {}, Middle({}, {})) : CommonLengths(a, b, middle);
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < middle.lengthA() || j < middle.lengthB()) {
        const bool both = i < middle.lengthA() && j < middle.lengthB();
        const Step* stepA = i < middle.lengthA() ? &a[middle.begin + i] : nullptr;
        const Step* stepB = j < middle.lengthB() ? &b[middle.begin + j] : nullptr;
        if (both && !tooLong && stepA->state == stepB->state) {
            pairs.push_back({*stepA, *stepB});
            ++i;
            ++j;
        } else if (stepB == nullptr || (both && (tooLong || common.at(i + 1, j) >= common.at(i, j + 1)))) {
            pairs.push_back({*stepA, std::nullopt});
            ++i;
        } else {
            pairs.push_back({std::nullopt, *stepB});
            ++j;
        }
    }
}

} // namespace

std::optional<std::int64_t> StepPair::notablePercent() const
{
    if (!inBoth() || !a->lasted || !b->lasted) {
        return std::nullopt;
    }
    const auto [shorter, longer] = std::minmax(*a->lasted, *b->lasted);
    if (longer - shorter <= NOTABLE_DIFFERENCE || longer - shorter <= shorter / NOTABLE_PART) {
        return std::nullopt;
    }
    constexpr double HUNDRED = 100;
    return static_cast<std::int64_t>(static_cast<double>(*b->lasted) * HUNDRED /
                                     static_cast<double>(std::max<Micros>(*a->lasted, 1)));
}

bool ZoneComparison::same() const
{
    return std::all_of(steps.begin(), steps.end(), [](const StepPair& pair) { return pair.inBoth(); });
}

std::vector<Step> stepsOf(const ZoneTimeline& zone)
{
    std::vector<Step> steps;
    for (const Interval& interval : zone.intervals) {
        if (!interval.beginSeen && !steps.empty() && steps.back().state == interval.state) {
            continue;
        }
        steps.push_back({interval.state, interval.whole() ? std::optional(interval.length()) : std::nullopt});
    }
    return steps;
}

std::vector<StepPair> alignSteps(const std::vector<Step>& a, const std::vector<Step>& b)
{
    const Middle middle(a, b);
    std::vector<StepPair> pairs;
    for (std::size_t i = 0; i < middle.begin; ++i) {
        pairs.push_back({a[i], b[i]});
    }
    alignMiddle(a, b, middle, pairs);
    for (std::size_t i = middle.endA, j = middle.endB; i < a.size(); ++i, ++j) {
        pairs.push_back({a[i], b[j]});
    }
    return pairs;
}

std::vector<ZoneComparison> compare(const Timeline& a, const Timeline& b)
{
    std::map<std::string, std::pair<Steps, Steps>> zones;
    for (const ZoneTimeline& zone : a.zones) {
        zones[zone.zone].first = stepsOf(zone);
    }
    for (const ZoneTimeline& zone : b.zones) {
        zones[zone.zone].second = stepsOf(zone);
    }
    std::vector<ZoneComparison> comparisons;
    comparisons.reserve(zones.size());
    for (const auto& [zone, steps] : zones) {
        comparisons.push_back({zone, alignSteps(steps.first, steps.second)});
    }
    return comparisons;
}

} // namespace Zonectl
