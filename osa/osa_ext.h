/**
 * @file
 * What a program needs of the OS layer beyond what the library imports: where
 * traces go, and what is still alive. Implemented by osa/posix and osa/sim; a
 * layer of a product's own need not have it.
 *
 *     OSA_TraceSetLevel(OSA_TRACE_INFO);
 *     ...
 *     OSA_Alive alive;
 *     OSA_AliveGet(&alive);
 *     printf("%u blocks, %u threads\n", alive.blocks, alive.threads);
 *
 * Any thread may call any function, unless said.
 */
#ifndef OSA_OSA_EXT_H
#define OSA_OSA_EXT_H

#include "osa/osa.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- traces -------------------------------------------------------------- */

/** Sets OSA_TraceThreshold: 0 silences everything but OSA_Traces, 4 lets every line
 * through. */
void OSA_TraceSetLevel(int32_t level);

/** The level last set; 2 at first. */
int32_t OSA_TraceGetLevel(void);

/** Where lines are written when no receiver is set: a file descriptor, standard
 * error (2) at first. Colour sequences are dropped when it is not a terminal
 * or when NO_COLOR is set to something in the environment. */
void OSA_TraceSetOutput(int32_t descriptor);

/** One trace line, valid during the call only. */
typedef struct OSA_TraceRecord {
    const char *module;   /**< null for a line of OSA_Traces */
    int32_t level;        /**< 1 .. 4; 0 for a line of OSA_Traces */
    const char *source;   /**< null for a line of OSA_Traces */
    int32_t line;         /**< source line; 0 for a line of OSA_Traces */
    const char *function; /**< null for a line of OSA_Traces */
    const char *text;     /**< the formatted text, its own line feed included */
} OSA_TraceRecord;

/** Takes one line, which is lent for the call, with the argument that was set with it. */
typedef void (*OSA_TraceReceiver)(void *user, const OSA_TraceRecord *record);

/** Sends every line that passes the threshold to `receiver` instead of the
 * output, on the thread that traces; several threads may be in it at once. Null
 * restores the output. Set it while no other thread traces. */
void OSA_TraceSetReceiver(OSA_TraceReceiver receiver, void *user);

/* ---- what is alive ------------------------------------------------------- */

/** How many of each thing exist now. Blocks that the layer keeps for later use
 * are not counted. */
typedef struct OSA_Alive {
    uint32_t blocks;      /**< from OSA_Malloc */
    uint64_t bytes;       /**< in those blocks */
    uint32_t pool_blocks; /**< from OSA_SMalloc */
    uint32_t list_nodes;  /**< in a list or in none */
    uint32_t lists;       /**< created and not yet destroyed */
    uint32_t queues;      /**< created and not yet destroyed */
    uint32_t events;      /**< created and not yet destroyed */
    uint32_t mutexes;     /**< created and not yet destroyed */
    uint32_t threads;     /**< created and not yet deleted, ended or not */
    uint32_t libraries;   /**< loaded handles */
    uint32_t files;       /**< open */
} OSA_Alive;

/** Counts into the caller's record. */
void OSA_AliveGet(OSA_Alive *alive);

/** 1 when every count is 0. */
uint8_t OSA_AliveIsNothing(const OSA_Alive *alive);

/** One live block of OSA_Malloc and where it was taken. */
typedef struct OSA_LiveBlock {
    const void *block;    /**< its address */
    uint32_t size;        /**< bytes */
    const char *module;   /**< as given to OSA_Malloc */
    int32_t line;         /**< as given to OSA_Malloc */
    const char *function; /**< as given to OSA_Malloc */
} OSA_LiveBlock;

/** Calls `visit` for each live block, oldest first, and returns their number.
 * `visit` must not call OSA_Malloc or OSA_Free. */
uint32_t OSA_MemoryVisit(void (*visit)(void *user, const OSA_LiveBlock *block), void *user);

#ifdef __cplusplus
}
#endif

#endif
