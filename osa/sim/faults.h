/*
 * Numbers the fallible calls of a run and decides which of them fail.
 */
#ifndef OSA_SIM_FAULTS_H
#define OSA_SIM_FAULTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "osa/sim/heap.h"

namespace sim
{

class Faults
{
public:
    /* Counts one call; true when it has to fail. The strings stay valid. */
    bool must_fail(const char *operation, const Origin &origin, const std::string &thread);

    void fail_two(uint64_t first, uint64_t second);
    void fail_from(uint64_t first);
    void fail_none()
    {
        fail_two(0, 0);
    }

    uint64_t call_count() const
    {
        return call_count_;
    }
    uint64_t failed_count() const
    {
        return failed_count_;
    }
    std::string call_text(uint64_t number) const;

private:
    struct Call {
        const char *operation;
        Origin origin;
        std::string thread;
        bool has_failed;
    };

    uint64_t first_ = 0; /* 0: none */
    uint64_t second_ = 0;
    bool all_later_ = false;
    uint64_t call_count_ = 0;
    uint64_t failed_count_ = 0;
    std::vector<Call> calls_;
};

} // namespace sim

#endif
