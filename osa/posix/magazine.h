// Magazines: small stacks of free pool blocks that travel between threads as a
// whole, and the lock-free depot stacks where they wait.
#ifndef OSA_POSIX_MAGAZINE_H
#define OSA_POSIX_MAGAZINE_H

#include <atomic>
#include <cstdint>

namespace osa
{

constexpr uint32_t kMagazineCapacity = 30;

struct Magazine {
    std::atomic<uint32_t> below{0}; // number of the magazine under it in a depot
    uint32_t number = 0;            // from 1; its name in the depots
    uint32_t count = 0;             // valid while no thread has it loaded
    uint32_t usable = 0;            // bytes of each block; valid while loaded
    void *blocks[kMagazineCapacity] = {};
};

// A stack of magazines for any number of threads. The head carries, beside the
// top magazine's number, a tag that changes with every operation: a magazine
// that was taken and put back in the meantime is not mistaken for one that
// stayed. Magazines keep their address, so that reading `below` of one that
// another thread has just taken is harmless.
class MagazineStack
{
public:
    void push(Magazine *magazine);
    Magazine *pop(); // null when empty

    // While no other thread uses the stack.
    void forget();

private:
    std::atomic<uint64_t> m_head{0}; // tag << 32 | number
};

// A magazine with nothing in it, from those kept or newly made; null without memory.
Magazine *magazine_take_empty();
void magazine_keep_empty(Magazine *magazine);

// Frees every magazine, wherever it is; while no thread uses any.
void magazines_release();

} // namespace osa

#endif
