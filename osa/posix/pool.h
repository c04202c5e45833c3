// Pools of fixed-size blocks. See pool_table.h for how they work.
#ifndef OSA_POSIX_POOL_H
#define OSA_POSIX_POOL_H

#include <cstdint>

namespace osa
{

struct ThreadState;

// OSA_SMalloc and OSA_SFree for the layer's own use.
void *pool_take(uint32_t block_size);
void pool_give(void *block, uint32_t block_size);

// Puts what a thread that ends holds within reach of the others; under the
// lock on the states.
void pools_hand_back(ThreadState &state);

// Ends all pools, and frees their memory when every block has come back.
void pools_stop();

// One error line for each pool with blocks still out.
void pools_report_alive();

// Blocks out of all pools, those of the layer's own nodes included.
uint32_t pools_count_out();

} // namespace osa

#endif
