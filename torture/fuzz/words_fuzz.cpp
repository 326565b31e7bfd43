// What an administrator types: plans, rates and sizes. Each text is either refused with a message or
// means something that is written and read again as the same.
#include "fuzz.hpp"

#include "failure.hpp"
#include "model/plan.hpp"
#include "model/rate.hpp"

using namespace fuzz;
using namespace tool;

namespace {

void TryPlan(PlanOf of, const std::string &text)
{
    try {
        const std::string plan = ParsePlan(of, text, HourState::kNormal);
        Require(plan.size() == kHoursOfWeek, "a plan has an hour for each of the week");
        CheckPlan(of, plan);
    } catch (const Failure &failure) {
        Require(failure.status() == kWrongUsage && failure.what()[0] != '\0',
                "a plan is refused with a message");
    }
}

// Any text may stand in a file in a plan's place.
void TryChanges(PlanOf of, const std::string &plan)
{
    constexpr std::time_t kAfter = 1'700'000'000;
    std::time_t last = kAfter;
    for (const PlanChange &change : ComingChanges(of, plan, kAfter, 8)) {
        Require(change.moment > last, "changes come one after the other");
        last = change.moment;
    }
    static_cast<void>(PlanText(plan));
}

void TryRate(const std::string &text)
{
    try {
        const Rate rate = ParseRate(text);
        Require(rate.kBps <= kMostRateKBps, "a rate fits");
        const Rate again = ParseRate(FormatRate(rate.kBps));
        Require(again.kBps == rate.kBps && again.note.empty(), "a rate reads as it is written");
    } catch (const Failure &failure) {
        Require(failure.status() == kWrongUsage, "a rate is refused as wrong usage");
    }
    try {
        static_cast<void>(FormatBytes(ParseSize(text)));
    } catch (const Failure &failure) {
        Require(failure.status() == kWrongUsage, "a size is refused as wrong usage");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pBytes, std::size_t cb)
{
    const std::string text = CString(Text(pBytes, cb));
    for (const PlanOf of : {PlanOf::kRule, PlanOf::kPolicy}) {
        TryPlan(of, text);
        TryChanges(of, text);
    }
    TryRate(text);
    return 0;
}
