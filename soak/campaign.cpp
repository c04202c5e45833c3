// Runs campaigns in child processes, and tells what they find.

#include "soak/campaign.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace soak
{

namespace
{

constexpr unsigned most_workers = 64;
constexpr uint64_t runs_of_a_child = 500; // a sanitizer never forgets a thread that has ended
constexpr uint64_t most_findings = 20;    // of one campaign; more would be the same again

// What children and parent share.
struct Board {
    std::atomic<uint64_t> next;     // place in the order of runs
    std::atomic<uint64_t> findings; // of all children
    std::atomic<uint64_t> answer;   // of a count
    std::atomic<uint64_t> current[most_workers];
};

Board *new_board()
{
    void *page =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return page != MAP_FAILED ? new (page) Board{} : nullptr;
}

#if defined(__SANITIZE_THREAD__)
constexpr char replay_options[] = "--preset tsan ";
#else
constexpr char replay_options[] = "";
#endif

struct Request {
    std::vector<std::string> names;
    bool quick = false;
    unsigned workers = std::clamp(std::thread::hardware_concurrency(), 1u, most_workers);
    uint64_t replay = 0; // 0: all runs
    bool one_processor_each = false;
};

bool wants(const Request &request, const Campaign &campaign)
{
    const auto &names = request.names;
    return names.empty() || std::any_of(names.begin(), names.end(), [&](const std::string &name) {
               return campaign.name == name || campaign.name.rfind(name + "-", 0) == 0;
           });
}

void tell(const Campaign &campaign, uint64_t run, const std::string &what)
{
    const auto number = static_cast<unsigned long long>(run);
    std::fprintf(
        stderr, "FINDING: %s, run %llu: %s\n  replay it with: scripts/soak %s--replay %s %llu\n",
        campaign.name.c_str(), number, what.c_str(), replay_options, campaign.name.c_str(), number);
}

// What expectations in the body say; empty when all hold.
template <typename Body>
std::string failures_of(Body body)
{
    using testing::ScopedFakeTestPartResultReporter;
    testing::TestPartResultArray results;
    {
        ScopedFakeTestPartResultReporter reporter(
            ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &results);
        body();
    }
    std::string text;
    for (int i = 0; i < results.size(); ++i)
        if (results.GetTestPartResult(i).failed())
            text += std::string("\n") + results.GetTestPartResult(i).message();
    return text;
}

std::string failures_of(const Campaign &campaign, uint64_t run)
{
    return failures_of([&] { campaign.run(run); });
}

// The order of runs takes --quick through the whole range in even steps.
uint64_t nth_run(uint64_t place, uint64_t taken, uint64_t all)
{
    return taken == all ? place + 1 : place * all / taken + 1;
}

void work(const Campaign &campaign, uint64_t taken, uint64_t all, Board &board, unsigned worker)
{
    for (uint64_t done = 0; done < runs_of_a_child && board.findings < most_findings; ++done) {
        const uint64_t place = board.next++;
        if (place >= taken)
            break;
        const uint64_t run = nth_run(place, taken, all);
        board.current[worker] = run;
        alarm(campaign.limit_seconds);
        const std::string failures = failures_of(campaign, run);
        if (!failures.empty()) {
            tell(campaign, run, failures);
            ++board.findings;
        }
    }
    alarm(0);
}

// The n-th of those that this process may use, beginning anew behind the last.
void stay_on_processor(unsigned n)
{
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0)
        return;
    n %= static_cast<unsigned>(CPU_COUNT(&allowed));
    for (size_t processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (!CPU_ISSET(processor, &allowed) || n-- != 0)
            continue;
        cpu_set_t only;
        CPU_ZERO(&only);
        CPU_SET(processor, &only);
        sched_setaffinity(0, sizeof(only), &only); // without it, it is only slower
        return;
    }
}

template <typename Body>
pid_t in_child(Body body)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child != 0)
        return child;
    body();
    std::exit(0); // not _exit: a leak is looked for on the way out
}

std::string end_text(int status, unsigned limit_seconds)
{
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        return "not over after " + std::to_string(limit_seconds) + " s";
    if (WIFSIGNALED(status))
        return std::string("ended by a signal: ") + strsignal(WTERMSIG(status));
    return "ended with status " + std::to_string(WEXITSTATUS(status));
}

uint64_t count_in_child(const Campaign &campaign, Board &board)
{
    const pid_t child = in_child([&] {
        alarm(campaign.limit_seconds);
        const std::string failures = failures_of([&] { board.answer = campaign.count(); });
        if (failures.empty())
            return;
        std::fprintf(stderr, "%s\n", failures.c_str());
        std::exit(1);
    });
    int status = 0;
    waitpid(child, &status, 0);
    if (status == 0)
        return board.answer;
    tell(campaign, 0, "counting its runs " + end_text(status, campaign.limit_seconds));
    ++board.findings;
    return 0;
}

// Keeps the workers going until all runs are taken; a child that ended is replaced.
void run_all(const Campaign &campaign, uint64_t taken, uint64_t all, Board &board,
             const Request &request)
{
    const unsigned workers = campaign.alone ? 1 : request.workers;
    std::vector<pid_t> children(workers, 0);
    const auto start = [&](unsigned worker) {
        board.current[worker] = 0;
        children[worker] = in_child([&, worker] {
            if (request.one_processor_each)
                stay_on_processor(worker);
            work(campaign, taken, all, board, worker);
        });
    };
    for (unsigned worker = 0; worker < workers; ++worker)
        start(worker);
    for (unsigned running = workers; running > 0; --running) {
        int status = 0;
        const pid_t child = waitpid(-1, &status, 0);
        const auto worker = static_cast<unsigned>(
            std::find(children.begin(), children.end(), child) - children.begin());
        if (status != 0) {
            tell(campaign, board.current[worker], end_text(status, campaign.limit_seconds));
            ++board.findings;
        }
        if (board.findings < most_findings && board.next < taken) {
            start(worker);
            ++running;
        }
    }
}

uint64_t run_campaign(const Campaign &campaign, const Request &request)
{
    Board *board = new_board();
    if (board == nullptr) {
        std::perror("soak");
        return 1;
    }
    const auto begun = std::chrono::steady_clock::now();
    const uint64_t all = campaign.count ? count_in_child(campaign, *board) : campaign.full;
    const uint64_t share = campaign.quick != 0 ? std::min(campaign.quick, all) : all;
    const uint64_t taken = request.quick ? share : all;
    run_all(campaign, taken, all, *board, request);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begun;
    std::printf("RESULT\t%s\t%llu %s\t%llu\t%.1f\n", campaign.name.c_str(),
                static_cast<unsigned long long>(std::min<uint64_t>(board->next, taken) *
                                                campaign.in_one_run),
                campaign.unit.c_str(), static_cast<unsigned long long>(board->findings),
                elapsed.count());
    std::fflush(stdout);
    const uint64_t findings = board->findings;
    munmap(board, sizeof(Board));
    return findings;
}

int replay(const Campaigns &campaigns, const Request &request)
{
    for (const Campaign &campaign : campaigns) {
        if (request.names.size() != 1 || campaign.name != request.names.front())
            continue;
        const std::string failures = failures_of(campaign, request.replay);
        std::printf("%s, run %llu: %s\n", campaign.name.c_str(),
                    static_cast<unsigned long long>(request.replay),
                    failures.empty() ? "nothing found" : failures.c_str());
        return failures.empty() ? 0 : 1;
    }
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
    request.one_processor_each = one_processor_each;
    bool list = false;
    CLI::App options{"Runs campaigns of faults, schedules and storms against the library."};
    options.add_option("campaign", request.names,
                       "what to run: whole names, or their first words; nothing for all");
    options.add_flag("--quick", request.quick, "a share of each");
    options.add_option("--jobs", request.workers, "runs at a time")
        ->check(CLI::Range(1u, most_workers));
    options.add_option("--run", request.replay, "only this run of the one campaign named")
        ->check(CLI::PositiveNumber);
    options.add_flag("--list", list, "the names, and nothing is run");
    CLI11_PARSE(options, argc, argv);
    if (request.replay != 0)
        return replay(campaigns, request);

    uint64_t findings = 0;
    for (const Campaign &campaign : campaigns) {
        if (!wants(request, campaign))
            continue;
        if (list)
            std::printf("%s\n", campaign.name.c_str());
        else
            findings += run_campaign(campaign, request);
    }
    return findings == 0 ? 0 : 1;
}

} // namespace soak
