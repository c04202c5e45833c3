// Runs in child processes, one after the other in each, and who is to blame when a child ends.
// A place on the board says what each is at; a finding is told where it is noticed, in the child
// or, when that has ended, in the parent.

#include "soak/crew.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "soak/heap.h"

#if defined(__SANITIZE_THREAD__)
// By default it goes on behind a race and tells with the exit status, hundreds of runs later.
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options()
{
    return "halt_on_error=1";
}
#endif

namespace soak
{

namespace
{

constexpr uint64_t runs_of_a_child = 500; // a sanitizer never forgets a thread that has ended
constexpr uint64_t most_findings = 20;    // of one campaign; more would be the same again

// What a child is at: places in the order of runs.
struct Place {
    std::atomic<uint64_t> first;   // that it began with
    std::atomic<uint64_t> current; // the last one begun
    std::atomic<bool> over;        // no run is under way any more
};

// What children and parent share.
struct Board {
    std::atomic<uint64_t> next;     // place in the order of runs
    std::atomic<uint64_t> findings; // of all children
    std::atomic<uint64_t> answer;   // of a count
    Place places[most_workers];
};

Board *new_board()
{
    void *page =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return page != MAP_FAILED ? new (page) Board{} : nullptr;
}

#if defined(__SANITIZE_THREAD__)
constexpr char replay_options[] = "--preset tsan ";
#elif defined(__SANITIZE_ADDRESS__)
constexpr char replay_options[] = ""; // what it does without being told
#elif defined(NDEBUG)
constexpr char replay_options[] = "--preset release ";
#else
constexpr char replay_options[] = "--preset debug ";
#endif

void tell(const Campaign &campaign, Runs runs, const std::string &what)
{
    const std::string numbers = text_of(runs);
    std::fprintf(stderr,
                 "FINDING: %s, run %s: %s\n  replay it with: scripts/soak %s--replay %s %s\n",
                 campaign.name.c_str(), numbers.c_str(), what.c_str(), replay_options,
                 campaign.name.c_str(), numbers.c_str());
}

// What expectations in the body say; empty when all hold.
std::string failures_of(const std::function<void()> &body)
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

// What is run of a campaign.
struct Order {
    uint64_t taken; // how many of them
    uint64_t all;

    // Takes --quick through the whole range in even steps.
    uint64_t run_at(uint64_t place) const
    {
        return taken == all ? place + 1 : place * all / taken + 1;
    }
};

void work(const Campaign &campaign, Order order, Board &board, Place &at)
{
    for (uint64_t done = 0; done < runs_of_a_child && board.findings < most_findings; ++done) {
        const uint64_t place = board.next++;
        if (place >= order.taken)
            break;
        if (done == 0)
            at.first = place;
        at.current = place;
        const uint64_t run = order.run_at(place);
        const std::string failures = failures_of(campaign, run);
        if (!failures.empty()) {
            tell(campaign, {run, run}, failures);
            ++board.findings;
        }
    }
    at.over = true;
}

// The same runs again, each with a look for leaks, which takes longer than most runs do. Ends
// with a status where one is.
void look_for_leaks(const Campaign &campaign, Order order, Place &at)
{
    const uint64_t last = at.current;
    for (at.current = at.first.load(); at.current <= last; ++at.current) {
        const uint64_t run = order.run_at(at.current);
        failures_of(campaign, run);
        if (has_leaked())
            std::_Exit(1);
    }
    at.current = last;
    std::_Exit(0);
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

// Negative, and said, when there can be none.
template <typename Body>
pid_t in_child(Body body)
{
    std::fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0)
        std::perror("soak: no process for runs");
    if (child != 0)
        return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL); // whatever ends the parent
    if (getppid() != parent)
        _exit(1);
    body();
    std::exit(0); // not _exit: a leak is looked for on the way out
}

// The child that ends next, or that one.
pid_t await(pid_t child, int &status)
{
    for (;;) {
        const pid_t ended = waitpid(child, &status, 0);
        if (ended >= 0 || errno != EINTR)
            return ended;
    }
}

std::string end_text(int status, unsigned limit_seconds)
{
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        return "not over after " + std::to_string(limit_seconds) + " s";
    if (WIFSIGNALED(status))
        return std::string("ended by a signal: ") + strsignal(WTERMSIG(status));
    return "ended with status " + std::to_string(WEXITSTATUS(status));
}

// 0, and a finding, when it fails.
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
    if (child < 0) {
        ++board.findings;
        return 0;
    }
    if (await(child, status) == child && status == 0)
        return board.answer;
    tell(campaign, {counting, counting},
         "counting its runs " + end_text(status, campaign.limit_seconds));
    ++board.findings;
    return 0;
}

// The child processes that take a campaign's runs.
class Crew
{
public:
    Crew(const Campaign &campaign, Order order, Board &board, const Share &share)
        : m_campaign(campaign), m_order(order), m_board(board),
          m_processor_each(share.one_processor_each),
          m_children(campaign.alone ? 1 : share.workers, 0)
    {
    }

    // Keeps all going until all runs are taken; a child that ended is replaced.
    void run()
    {
        size_t running = 0;
        for (size_t worker = 0; worker < m_children.size(); ++worker)
            running += start(worker) ? 1 : 0;
        for (; running > 0; --running) {
            int status = 0;
            const pid_t child = await(-1, status);
            const auto found = std::find(m_children.begin(), m_children.end(), child);
            if (child <= 0 || found == m_children.end()) {
                std::perror("soak: a process for runs is lost");
                ++m_board.findings;
                return;
            }
            const auto worker = static_cast<size_t>(found - m_children.begin());
            if (status != 0)
                tell_end(m_board.places[worker], status);
            if (m_board.findings < most_findings && m_board.next < m_order.taken)
                running += start(worker) ? 1 : 0;
        }
    }

private:
    bool start(size_t worker)
    {
        Place &at = m_board.places[worker];
        at.first = at.current = 0;
        at.over = false;
        m_children[worker] = in_child([&] {
            if (m_processor_each)
                stay_on_processor(static_cast<unsigned>(worker));
            work(m_campaign, m_order, m_board, at);
        });
        if (m_children[worker] >= 0)
            return true;
        ++m_board.findings;
        return false;
    }

    // Behind the last run it can only be a leak: any of the runs is to blame.
    void tell_end(Place &at, int status)
    {
        std::string what = end_text(status, m_campaign.limit_seconds);
        if (at.over && at.first < at.current)
            what = found_again(at) ? "leaks" : "their process, after all of them, " + what;
        const uint64_t current = at.current;
        tell(m_campaign,
             {m_order.run_at(at.over ? at.first.load() : current), m_order.run_at(current)}, what);
        ++m_board.findings;
    }

    bool found_again(Place &at)
    {
        const pid_t child = in_child([&] { look_for_leaks(m_campaign, m_order, at); });
        int status = 0;
        at.over = child < 0 || await(child, status) != child || status == 0;
        return !at.over;
    }

    const Campaign &m_campaign;
    const Order m_order;
    Board &m_board;
    const bool m_processor_each;
    std::vector<pid_t> m_children; // by worker
};

} // namespace

std::string text_of(Runs runs)
{
    const std::string first = std::to_string(runs.first);
    return runs.first == runs.last ? first : first + "-" + std::to_string(runs.last);
}

std::string failures_of(const Campaign &campaign, uint64_t run)
{
    alarm(campaign.limit_seconds);
    const std::string failures = failures_of([&] {
        if (run == counting)
            campaign.count();
        else
            campaign.run(run);
    });
    alarm(0);
    return failures;
}

Outcome run_in_children(const Campaign &campaign, const Share &share)
{
    Board *board = new_board();
    if (board == nullptr) {
        std::perror("soak: no memory to share with children");
        return {.findings = 1};
    }
    const uint64_t all = campaign.count ? count_in_child(campaign, *board) : campaign.full;
    const uint64_t quick = campaign.quick != 0 ? std::min(campaign.quick, all) : all;
    const Order order = {share.quick ? quick : all, all};
    Crew(campaign, order, *board, share).run();
    const Outcome outcome = {std::min<uint64_t>(board->next, order.taken), board->findings};
    munmap(board, sizeof(Board));
    return outcome;
}

} // namespace soak
