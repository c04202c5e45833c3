/*
 * Keeps the threads of a run on one processor. Only one of them runs at a time,
 * and to wake the next is several times faster where the last one ran.
 */
#ifndef OSA_SIM_ONE_PROCESSOR_H
#define OSA_SIM_ONE_PROCESSOR_H

#include <sched.h>

namespace sim
{

class OneProcessor
{
public:
    /* For the calling thread and those it makes. Where that is not allowed, the
     * run is slower, not different. */
    OneProcessor()
    {
        const int here = sched_getcpu();
        if (here < 0 || here >= CPU_SETSIZE || sched_getaffinity(0, sizeof before_, &before_) != 0)
            return;
        cpu_set_t only;
        CPU_ZERO(&only);
        CPU_SET(static_cast<size_t>(here), &only);
        is_bound_ = sched_setaffinity(0, sizeof only, &only) == 0;
    }
    ~OneProcessor()
    {
        if (is_bound_)
            sched_setaffinity(0, sizeof before_, &before_);
    }
    OneProcessor(const OneProcessor &) = delete;
    OneProcessor &operator=(const OneProcessor &) = delete;

private:
    cpu_set_t before_;
    bool is_bound_ = false;
};

} // namespace sim

#endif
