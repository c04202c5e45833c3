// Sweeps of faults over scenarios: each call of the OS layer that may fail does so in
// turn, once and then from there on for ever, and many pairs of them do.
//
// However that goes, nothing may crash, hang, stay alive or be misused; the failure is
// told, by a call's result, by a level-1 trace or by a message on the bus; and the
// scenario works when it is run again without faults.

#include "soak/faults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "soak/campaigns.h"
#include "soak/dice.h"

namespace soak
{

namespace
{

constexpr uint64_t kPairs = 10'000;
constexpr uint64_t kQuickPairs = 500;
constexpr uint64_t kQuickQuiet = 1000;
constexpr uint32_t kSchedules = 1000;
constexpr uint32_t kNearby = 12; // calls: what handles a failure comes right after it

using Errors = std::vector<std::string>;

struct Outcome {
    bool was_refused = false; // a call answered with a failure
    bool saw_all = false;     // what has to come about did
    Errors errors;            // on the trace and on the bus
    uint64_t calls = 0;       // that may fail, made in the scenario
    uint64_t failed = 0;      // of them
    uint64_t in_secret = 0;   // of these, those that are silent by contract
    std::string remains;      // alive or misused
};

uint64_t count_failed(const char *call_part, uint64_t calls)
{
    uint64_t count = 0;
    for (uint64_t call = 1; call_part != nullptr && call <= calls; ++call) {
        const std::string text = SIM_FallibleText(call);
        count += text.find(call_part) != std::string::npos && text.ends_with(", failed") ? 1 : 0;
    }
    return count;
}

template <typename Plan>
Outcome run(const Scenario &scenario, Plan plan, uint64_t seed = 1)
{
    Stage stage({.seed = seed}, false);
    Outcome outcome;
    plan();
    {
        Attempt attempt;
        scenario.story(attempt);
        attempt.shut_down();
        outcome.was_refused = attempt.was_refused();
        outcome.saw_all = attempt.saw_all();
        outcome.errors = attempt.errors();
        outcome.calls = attempt.calls();
    }
    outcome.failed = SIM_FailedCount();
    if (outcome.failed > 0)
        outcome.in_secret = count_failed(scenario.silent_call, outcome.calls);
    outcome.remains = stage.end();
    return outcome;
}

// What a scenario does without faults: the measure for all its runs.
const Outcome &clean_run_of(const Scenario &scenario)
{
    static std::map<std::string, Outcome> known;
    const auto [place, is_new] = known.try_emplace(scenario.name);
    if (is_new)
        place->second = run(scenario, SIM_FailNone);
    return place->second;
}

// Errors that do not come without faults: an error that is told anyway tells nothing.
Errors own_errors(const Scenario &scenario, const Outcome &outcome)
{
    const Errors &usual = clean_run_of(scenario).errors;
    Errors own;
    for (const std::string &error : outcome.errors)
        if (std::find(usual.begin(), usual.end(), error) == usual.end())
            own.push_back(error);
    return own;
}

void judge_clean(const Scenario &scenario, const Outcome &outcome, const std::string &when)
{
    EXPECT_TRUE(!outcome.was_refused && outcome.saw_all) << when;
    EXPECT_EQ(Errors(), own_errors(scenario, outcome)) << when;
    EXPECT_EQ("", outcome.remains) << when;
}

void judge(const Scenario &scenario, const Outcome &outcome, const std::string &calls)
{
    const std::string where = std::string(scenario.name) + ": " + calls;
    EXPECT_EQ("", outcome.remains) << where;
    if (outcome.failed > outcome.in_secret) {
        EXPECT_TRUE(outcome.was_refused || !own_errors(scenario, outcome).empty())
            << "failed in silence, " << where;
    }
    judge_clean(scenario, run(scenario, SIM_FailNone), "afterwards, " + where);
}

uint64_t count_faults(const Scenario &scenario)
{
    const Outcome &clean = clean_run_of(scenario);
    judge_clean(scenario, clean, "without faults");
    if (!scenario.tells_errors) {
        EXPECT_EQ(Errors(), clean.errors) << "without faults";
    }
    return 2 * clean.calls;
}

// Odd runs let a call fail once, even ones that call and all that follow.
void run_fault(const Scenario &scenario, uint64_t number)
{
    const uint64_t call = (number + 1) / 2;
    const bool for_ever = number % 2 == 0;
    const Outcome outcome =
        run(scenario, [=] { for_ever ? SIM_FailFrom(call) : SIM_FailNth(call); });
    const std::string text = (for_ever ? "from " : "only ") + SIM_FallibleText(call);
    EXPECT_GT(outcome.failed, 0u) << text;
    judge(scenario, outcome, text);
}

std::vector<Scenario> all_scenarios()
{
    std::vector<Scenario> scenarios = core_scenarios();
    for (const Scenario &scenario : plugin_scenarios())
        scenarios.push_back(scenario);
    return scenarios;
}

struct Pair {
    Scenario scenario;
    uint64_t seed;
    uint64_t first, second;
};

// The second fault is often near the first one, where it meets the handling of it, and
// the schedule is any. Only a run with the first tells which calls come after it: where
// the story ends with that fault, another one is drawn.
Pair draw_pair(const std::vector<Scenario> &scenarios, uint64_t number)
{
    Dice dice(number);
    for (;;) {
        const Scenario &scenario = dice.one_of(scenarios);
        const auto calls = static_cast<uint32_t>(clean_run_of(scenario).calls);
        const uint32_t first = dice.between(1, calls);
        const uint64_t seed = dice.between(1, kSchedules);
        const Outcome alone = run(
            scenario, [=] { SIM_FailNth(first); }, seed);
        if (alone.failed == 0 || alone.calls <= first)
            continue;
        const auto left = static_cast<uint32_t>(alone.calls) - first;
        const uint32_t reach = dice.chance(50) ? std::min(kNearby, left) : left;
        return {scenario, seed, first, first + dice.between(1, reach)};
    }
}

void run_pair(const std::vector<Scenario> &scenarios, uint64_t number)
{
    const auto [scenario, seed, first, second] = draw_pair(scenarios, number);
    const auto fail_both = [first = first, second = second] { SIM_FailNth(first, second); };
    const Outcome outcome = run(scenario, fail_both, seed);
    const std::string calls = SIM_FallibleText(first) + " and " + SIM_FallibleText(second);
    EXPECT_EQ(2u, outcome.failed) << calls;
    judge(scenario, outcome, calls);
}

// The same faults, each once, with the traces switched off: what is told must not be part of
// what is done. The runs count through the scenarios, one after the other.
void run_quiet(const std::vector<Scenario> &scenarios, uint64_t number)
{
    auto scenario = scenarios.begin();
    for (; number > clean_run_of(*scenario).calls; ++scenario)
        number -= clean_run_of(*scenario).calls;
    const Outcome outcome = run(*scenario, [=] {
        OSA_TraceSetLevel(0);
        SIM_FailNth(number);
    });
    const std::string where = std::string(scenario->name) + ": " + SIM_FallibleText(number);
    EXPECT_EQ("", outcome.remains) << where;
    judge_clean(*scenario, run(*scenario, SIM_FailNone), "afterwards, " + where);
}

uint64_t count_calls(const std::vector<Scenario> &scenarios)
{
    uint64_t calls = 0;
    for (const Scenario &scenario : scenarios)
        calls += clean_run_of(scenario).calls;
    return calls;
}

} // namespace

Campaigns fault_campaigns()
{
    const std::vector<Scenario> scenarios = all_scenarios();
    Campaigns campaigns;
    for (const Scenario &scenario : scenarios)
        campaigns.push_back({std::string("faults-") + scenario.name, "fault points", 0, 0,
                             [scenario](uint64_t number) { run_fault(scenario, number); },
                             [scenario] { return count_faults(scenario); }});
    campaigns.push_back({"faults-pairs", "pairs", kPairs, kQuickPairs,
                         [scenarios](uint64_t number) { run_pair(scenarios, number); }});
    campaigns.push_back({"faults-quiet", "faults without traces", 0, kQuickQuiet,
                         [scenarios](uint64_t number) { run_quiet(scenarios, number); },
                         [scenarios] { return count_calls(scenarios); }});
    return campaigns;
}

} // namespace soak
