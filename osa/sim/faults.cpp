// The numbering of fallible calls and the plan of which fail.

#include "osa/sim/faults.h"

namespace sim
{

namespace
{

constexpr size_t remembered_limit = 1'000'000;

} // namespace

void Faults::fail_two(uint64_t first, uint64_t second)
{
    first_ = first;
    second_ = second;
    all_later_ = false;
}

void Faults::fail_from(uint64_t first)
{
    fail_two(first, 0);
    all_later_ = first != 0;
}

bool Faults::must_fail(const char *operation, const Origin &origin, const std::string &thread)
{
    const uint64_t number = ++call_count_;
    const bool fails = number == first_ || number == second_ || (all_later_ && number > first_);
    if (fails)
        failed_count_++;
    if (calls_.size() < remembered_limit)
        calls_.push_back({operation, origin, thread, fails});
    return fails;
}

std::string Faults::call_text(uint64_t number) const
{
    if (number == 0 || number > call_count_)
        return "call " + std::to_string(number) + " was not made";
    if (number > calls_.size())
        return "call " + std::to_string(number) + " is not remembered";
    const Call &call = calls_[number - 1];
    return "call " + std::to_string(number) + ": " + call.operation + " from " +
           origin_text(call.origin) + " on thread \"" + call.thread + "\"" +
           (call.has_failed ? ", failed" : "");
}

} // namespace sim
