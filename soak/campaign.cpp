// The command line of the programs, and what they print.

#include "soak/campaign.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "soak/crew.h"
#include "soak/heap.h"

namespace soak
{

namespace
{

struct Request {
    std::vector<std::string> names;
    Share share;
    std::string replay; // empty: all runs
};

bool is_named(const Campaign &campaign, const std::string &name)
{
    return campaign.name == name || campaign.name.rfind(name + "-", 0) == 0;
}

bool wants(const Request &request, const Campaign &campaign)
{
    const auto &names = request.names;
    return names.empty() || std::any_of(names.begin(), names.end(), [&](const std::string &name) {
               return is_named(campaign, name);
           });
}

// A name without a campaign: one that is misspelt must not pass for one that found nothing.
bool all_names_known(const Request &request, const Campaigns &campaigns)
{
    bool known = true;
    for (const std::string &name : request.names) {
        if (std::any_of(campaigns.begin(), campaigns.end(),
                        [&](const Campaign &campaign) { return is_named(campaign, name); }))
            continue;
        std::fprintf(stderr, "no campaign of this program is named %s\n", name.c_str());
        known = false;
    }
    return known;
}

bool parse(const std::string &text, Runs &runs)
{
    unsigned long long first = 0;
    unsigned long long last = 0;
    int length = 0;
    if (std::sscanf(text.c_str(), "%llu%n-%llu%n", &first, &length, &last, &length) < 2)
        last = first;
    runs = {first, last};
    return text == text_of(runs) && first <= last && (first != counting || last == counting);
}

uint64_t run_campaign(const Campaign &campaign, const Share &share)
{
    const auto begun = std::chrono::steady_clock::now();
    const Outcome outcome = run_in_children(campaign, share);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begun;
    std::printf("RESULT\t%s\t%llu %s\t%llu\t%.1f\n", campaign.name.c_str(),
                static_cast<unsigned long long>(outcome.taken * campaign.in_one_run),
                campaign.unit.c_str(), static_cast<unsigned long long>(outcome.findings),
                elapsed.count());
    std::fflush(stdout);
    return outcome.findings;
}

// In this process, for a debugger.
int replay(const Campaign &campaign, Runs runs)
{
    if (runs.first == counting && !campaign.count) {
        std::fprintf(stderr, "the runs of %s are not counted\n", campaign.name.c_str());
        return 2;
    }
    std::string failures;
    for (uint64_t run = runs.first; run <= runs.last && failures.empty(); ++run) {
        failures = failures_of(campaign, run);
        if (has_leaked())
            failures += "\nrun " + std::to_string(run) + " leaks";
    }
    std::printf("%s, run %s: %s\n", campaign.name.c_str(), text_of(runs).c_str(),
                failures.empty() ? "nothing found" : failures.c_str());
    return failures.empty() ? 0 : 1;
}

int replay(const Campaigns &campaigns, const Request &request)
{
    Runs runs;
    if (!parse(request.replay, runs)) {
        std::fprintf(stderr, "--run wants the number of a run, or those of the first and last\n");
        return 2;
    }
    for (const Campaign &campaign : campaigns)
        if (request.names.size() == 1 && campaign.name == request.names.front())
            return replay(campaign, runs);
    std::fprintf(stderr, "--run wants the whole name of one campaign of this program\n");
    return 2;
}

} // namespace

// splitmix64, one step from a state that both numbers make.
uint64_t bits_of(uint64_t run, uint64_t place)
{
    uint64_t bits = (run * 0x9E3779B97F4A7C15u) ^ ((place + 1) * 0xD1B54A32D192ED03u);
    bits = (bits ^ (bits >> 30)) * 0xBF58476D1CE4E5B9u;
    bits = (bits ^ (bits >> 27)) * 0x94D049BB133111EBu;
    return bits ^ (bits >> 31);
}

int main_of(int argc, char **argv, const std::vector<Campaigns> &groups, bool one_processor_each)
{
    Campaigns campaigns;
    for (const Campaigns &group : groups)
        campaigns.insert(campaigns.end(), group.begin(), group.end());
    Request request;
    request.share.one_processor_each = one_processor_each;
    request.share.workers = std::clamp(std::thread::hardware_concurrency(), 1u, most_workers);
    bool list = false;
    CLI::App options{"Runs campaigns of faults, schedules and storms against the library."};
    options.add_option("campaign", request.names,
                       "what to run: whole names, or their first words; nothing for all");
    options.add_flag("--quick", request.share.quick, "a share of each");
    options.add_option("--jobs", request.share.workers, "runs at a time")
        ->check(CLI::Range(1u, most_workers));
    options.add_option("--run", request.replay,
                       "only this run of the one campaign named, or FIRST-LAST; 0: the count");
    options.add_flag("--list", list, "the names, and nothing is run");
    CLI11_PARSE(options, argc, argv);
    if (!request.replay.empty())
        return replay(campaigns, request);
    if (!all_names_known(request, campaigns))
        return 2;

    uint64_t findings = 0;
    for (const Campaign &campaign : campaigns) {
        if (!wants(request, campaign))
            continue;
        if (list)
            std::printf("%s\n", campaign.name.c_str());
        else
            findings += run_campaign(campaign, request.share);
    }
    return findings == 0 ? 0 : 1;
}

} // namespace soak
