// A pipe of plugins of the program itself, on the real OS layer: sources as fast as their
// threads run, each with a sink. The plugins look themselves at what must hold whatever is
// done to them.
#ifndef SOAK_STORM_PIPE_H
#define SOAK_STORM_PIPE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "noxcore.h"

namespace soak
{

// How a source's thread ends by itself, and after how many buffers of a start.
enum class Fate { kNone, kNothingCaptured, kFrameLimit, kPushFails };

struct Shape {
    bool live = true;
    Fate fate = Fate::kNone;
    uint32_t lifetime = 0;
    uint32_t turns = 0; // of a loop, that a capture takes
};

// One source with its sink: what they are, and what happened to them.
struct Chain {
    Shape shape;
    uint32_t created = 0;              // since the last start, on the source's thread
    std::atomic<bool> is_open{false};  // between start and stop of the source
    std::atomic<uint64_t> rendered{0}; // by the sink, ever
    std::atomic<uint32_t> wrong{0};    // calls that must not come: see wrongs() in the source
    std::atomic<uint32_t> finalized{0};
    std::atomic<NOXBuffer *> kept{nullptr}; // by the sink; released on other threads, too
    NOXBaseSrc *source = nullptr;
};

// Keeps a processor busy for so many turns of a loop.
inline void work(uint32_t turns)
{
    for (volatile uint32_t left = turns; left > 0;)
        left = left - 1;
}

class StormPipe
{
public:
    explicit StormPipe(const std::vector<Shape> &shapes);
    // Deletes the pipe unless that has been done, and checks that everything is over.
    ~StormPipe();
    StormPipe(const StormPipe &) = delete;
    StormPipe &operator=(const StormPipe &) = delete;

    NOXPipe *pipe() const
    {
        return m_pipe;
    }
    Chain &chain(size_t index) const
    {
        return *m_chains[index];
    }

    void to(int32_t state);
    void to_async(int32_t state); // returns when the change is over
    void delete_pipe();           // on any thread
    bool is_deleted() const
    {
        return m_is_deleted;
    }

    uint64_t rendered() const;
    void expect_flow() const; // of every chain, soon
    void release_kept();      // buffers that the sinks kept

private:
    NOXPipe *m_pipe;
    std::vector<std::unique_ptr<Chain>> m_chains;
    std::atomic<bool> m_is_deleted{false};
};

} // namespace soak

#endif
