// Chooses the thread that runs next, passes it the turn, and lets time pass.

#include "osa/sim/scheduler.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "osa/sim/world.h"

namespace sim
{

namespace
{

thread_local OSA_Thread *calling_thread = nullptr;

void futex(std::atomic<uint32_t> &word, int operation, uint32_t value)
{
    syscall(SYS_futex, reinterpret_cast<uint32_t *>(&word), operation, value, nullptr, nullptr, 0);
}

} // namespace

// The woken thread may be gone before the wake-up call is made; the call then
// finds nobody at that address, which is harmless.
void Baton::give()
{
    held_.store(1, std::memory_order_release);
    futex(held_, FUTEX_WAKE_PRIVATE, 1);
}

void Baton::take()
{
    while (held_.exchange(0, std::memory_order_acquire) == 0)
        futex(held_, FUTEX_WAIT_PRIVATE, 0);
}

// splitmix64: every seed, 0 included, gives a good sequence.
uint64_t Random::below(uint64_t limit)
{
    state_ += 0x9E3779B97F4A7C15u;
    uint64_t bits = state_;
    bits = (bits ^ (bits >> 30)) * 0xBF58476D1CE4E5B9u;
    bits = (bits ^ (bits >> 27)) * 0x94D049BB133111EBu;
    return (bits ^ (bits >> 31)) % limit;
}

Scheduler::Scheduler(const SIM_Options &options)
    : options_(options), random_(options.seed), tick_offset_(options.first_tick)
{
    main_.name = "main";
    threads_.push_back(&main_);
    calling_thread = &main_;
}

OSA_Thread *Scheduler::calling()
{
    return calling_thread;
}

void Scheduler::add(OSA_Thread &thread)
{
    threads_.push_back(&thread);
}

void Scheduler::enter(OSA_Thread &thread)
{
    calling_thread = &thread;
    thread.baton.take();
}

uint64_t Scheduler::deadline_in(uint64_t duration_ms) const
{
    return duration_ms > no_deadline - now_ ? no_deadline : now_ + duration_ms;
}

void Scheduler::advance(uint64_t duration_ms)
{
    now_ += duration_ms;
    points_at_this_time_ = 0;
}

bool Scheduler::may_run(const OSA_Thread &thread) const
{
    return !thread.is_waiting || thread.wait.deadline <= now_ || thread.wait.is_met();
}

void Scheduler::collect_runnable(const OSA_Thread *but)
{
    runnable_.clear();
    for (OSA_Thread *thread : threads_)
        if (thread != but && may_run(*thread))
            runnable_.push_back(thread);
}

void Scheduler::point()
{
    point_count_++;
    if (++points_at_this_time_ > options_.point_limit)
        give_up("no time passed during " + std::to_string(options_.point_limit) + " calls");
    if (!has_others() || options_.switch_percent == 0 ||
        random_.below(100) >= options_.switch_percent)
        return;
    collect_runnable(running_);
    if (!runnable_.empty())
        switch_to(*runnable_[random_.below(runnable_.size())]);
}

bool Scheduler::wait(const Wait &wait)
{
    OSA_Thread &self = *running_;
    if (wait.is_met())
        return true;
    if (wait.object != nullptr && wait.deadline <= now_)
        return false;
    self.wait = wait;
    self.is_waiting = true;
    switch_to(*next_runnable());
    self.is_waiting = false;
    return wait.is_met();
}

void Scheduler::finish()
{
    running_->has_ended = true;
    threads_.erase(std::find(threads_.begin(), threads_.end(), running_));
    calling_thread = nullptr;
    running_ = next_runnable();
    switch_count_++;
    running_->baton.give();
}

OSA_Thread *Scheduler::next_runnable()
{
    collect_runnable(nullptr);
    while (runnable_.empty()) {
        if (!pass_time())
            give_up("deadlock");
        collect_runnable(nullptr);
    }
    return runnable_[random_.below(runnable_.size())];
}

bool Scheduler::pass_time()
{
    uint64_t earliest = no_deadline;
    bool is_driven = false;
    for (const OSA_Thread *thread : threads_) {
        earliest = std::min(earliest, thread->wait.deadline);
        is_driven |= !thread->wait.is_patient && thread->wait.deadline != no_deadline;
    }
    if (!is_driven)
        return false;
    waited_ms_ += earliest - now_;
    if (waited_ms_ > options_.time_limit_ms)
        give_up("still running after " + std::to_string(options_.time_limit_ms) + " ms");
    advance(earliest - now_);
    return true;
}

void Scheduler::switch_to(OSA_Thread &next)
{
    OSA_Thread &self = *running_;
    if (&next == &self)
        return;
    switch_count_++;
    running_ = &next;
    next.baton.give();
    self.baton.take();
}

bool Scheduler::is_awaited(const Object *object) const
{
    return std::any_of(threads_.begin(), threads_.end(), [object](const OSA_Thread *thread) {
        return thread->is_waiting && thread->wait.object == object;
    });
}

std::string Scheduler::threads_text() const
{
    std::string text;
    for (const OSA_Thread *thread : threads_) {
        text += "  " + thread->text() + ": ";
        if (!thread->is_waiting) {
            text += "can run\n";
            continue;
        }
        const Wait &wait = thread->wait;
        text += wait.object == nullptr ? "sleep" : wait.object->wait_text();
        text += wait.deadline == no_deadline || wait.is_patient
                    ? " (no limit)\n"
                    : " (until tick " + std::to_string(wait.deadline + tick_offset_) + ")\n";
    }
    return text;
}

} // namespace sim
