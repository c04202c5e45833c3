// Nodes of lists and queues: from the pool of their size once there is one, from
// the heap before, each back to where it came from.
#ifndef OSA_POSIX_NODE_H
#define OSA_POSIX_NODE_H

#include <cstdint>
#include <new>

#include "osa/posix/pool.h"
#include "osa/posix/thread_state.h"

namespace osa
{

// Where a node was taken from. One that OSA_SMalloc handed out is none: it is
// counted as a block and goes back by OSA_SFree.
enum class Origin : uint32_t { pool, heap };

// `Node` has a field `origin` and is served by the pool of `pool_size`, whose
// blocks have room for it.
template <typename Node, uint32_t pool_size>
Node *node_new()
{
    if (void *block = pool_take(pool_size); block != nullptr) {
        count_alive(Kind::pool_backed, 1);
        return new (block) Node{};
    }
    Node *node = new (std::nothrow) Node{};
    if (node != nullptr)
        node->origin = Origin::heap;
    return node;
}

template <uint32_t pool_size, typename Node>
void node_delete(Node *node)
{
    if (node->origin == Origin::heap) {
        delete node;
        return;
    }
    count_alive(Kind::pool_backed, -1);
    pool_give(node, pool_size);
}

} // namespace osa

#endif
