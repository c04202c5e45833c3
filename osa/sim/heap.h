/*
 * Every block of memory that the layer hands out: blocks of OSA_Malloc, blocks
 * of pools and list nodes, all from the C library's heap so that
 * AddressSanitizer guards them. Without it, bytes behind each block and bytes
 * of freed blocks are checked for writes.
 */
#ifndef OSA_SIM_HEAP_H
#define OSA_SIM_HEAP_H

#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace sim
{

enum class BlockKind { plain, pool, list_node };
constexpr size_t block_kind_count = 3;

struct Origin {
    const void *caller = nullptr; /* return address */
    const char *module = nullptr; /* null when the operation does not tell */
    int32_t line = 0;
    const char *function = nullptr;
};

/* Where a call came from: the names given, or else the place of the code. */
std::string origin_text(const Origin &origin);

struct Block {
    BlockKind kind;
    uint32_t size;
    uint64_t order; /* among all blocks of the run, from 1 */
    Origin origin;
    const void *list; /* of a list node: the list that holds it */
};

class Heap
{
public:
    ~Heap();

    /* A zero-filled block, or null when the machine has no more memory. The texts
     * of the origin must stay: see keep. */
    void *take(BlockKind kind, uint32_t size, const Origin &origin);

    /* The record of a live block, or null. */
    Block *find(const void *address);

    /* Gives a live block back and returns what was found wrong with it, or "". */
    std::string give(void *address);

    /* Gives back everything; what was found wrong, one line each. */
    std::vector<std::string> give_all();

    struct Live {
        const void *address;
        const Block *block;
    };
    std::vector<Live> alive() const; /* oldest first */

    uint32_t count(BlockKind kind) const
    {
        return count_[static_cast<size_t>(kind)];
    }
    uint64_t bytes(BlockKind kind) const
    {
        return bytes_[static_cast<size_t>(kind)];
    }

    /* The same text at an address that stays: a caller's library may be unloaded. */
    const char *keep(const char *text);

private:
    struct Freed {
        void *address;
        Block block;
    };
    std::string release_oldest_freed();

    std::unordered_map<const void *, Block> blocks_;
    std::deque<Freed> freed_;
    std::unordered_set<std::string> texts_;
    std::array<uint32_t, block_kind_count> count_{};
    std::array<uint64_t, block_kind_count> bytes_{};
    uint64_t order_ = 0;
};

/* "block of 16 bytes", with where it was taken. */
std::string block_text(const Block &block);

} // namespace sim

#endif
