/**
 * @file
 * Control of the simulated OS layer: everything of osa/osa.h and osa/osa_ext.h
 * in virtual time, reproducible by a seed, for tests.
 *
 *     SIM_Begin({.seed = 7});
 *     ... drive the code under test through its own interface ...
 *     EXPECT_EQ("", SIM_End());       // nothing alive, no misuse
 *
 * Threads. They are real, but only one runs at a time. The thread that calls
 * SIM_Begin is the thread "main" and takes part like any other. Every call into
 * the layer, except on lists and on files, is a point where another thread may
 * get its turn; which one, a generator seeded by the run decides. The same seed
 * gives the same run, so a failure is replayed with its seed. Priorities are
 * ignored. A thread that OSA_ThreadCreate did not make must not call in.
 *
 * Time passes only when no thread can run: then it jumps to the earliest
 * deadline, so a sleep of hours costs microseconds. The moments at which
 * OSA_ThreadDelete names a thread that does not end are no deadlines: it speaks
 * when they pass for another reason. When there is no deadline either, that is a
 * deadlock: the report names every thread, what it waits for and the seed, goes to
 * standard error, and the process aborts. So it does when a run spins without
 * letting time pass (`point_limit`), when it goes on for longer than
 * `time_limit_ms`, and when SIM_End finds a thread still running.
 *
 * Data races. A build with ThreadSanitizer sees an order between two threads
 * only where the layer promises one: unlock to lock, send to wait, push to pop,
 * creation to start, end to delete. Taking turns hides nothing from it, and a
 * race is found in whichever schedule both accesses happen. A trace, a block
 * given back, a tick or a sleep order nothing. What stays hidden: accesses that
 * a given schedule happens to order by one of the promises (so sweep seeds), and
 * the bytes that the layer itself reads of a caller's arguments.
 *
 * Faults. Each call of a fallible operation has a number, counted from 1 at
 * SIM_Begin. A sweep over every single fault:
 *
 *     for (uint64_t n = 1, failed = 1; failed != 0; n++) {
 *         SIM_Begin();
 *         SIM_FailNth(n);
 *         scenario();
 *         failed = SIM_FailedCount();
 *         EXPECT_EQ("", SIM_End()) << SIM_FallibleText(n);
 *     }
 *
 * Fallible are OSA_Malloc, OSA_SMalloc, OSA_SMalloc_Register, OSA_ListCreate,
 * OSA_ListAddTail and -AddHead, OSA_List_Node_new and -new_data, OSA_MutexCreate,
 * OSA_EventCreate, OSA_QueueCreate, OSA_QueuePush, OSA_ThreadCreate,
 * OSA_FileOpen, OSA_FileWrite, OSA_FileClose of a file that was written,
 * OSA_LibraryLoad and OSA_LibraryGetFunc.
 *
 * Misuse (a block freed twice or to the wrong pool, a handle used after its
 * destruction, a node unlinked from a list it is not in, an unlock by a thread
 * that does not hold the mutex, a write past the end of a block ...) makes the
 * call fail without effect, is printed, and is part of what SIM_End returns.
 *
 * A call into the layer outside a run begins one with the default options.
 * Nothing else reaches the wall clock or the addresses of a run. Traces are
 * recorded and not printed; NOX_SIM_ECHO=1 in the environment prints them too.
 */
#ifndef OSA_SIM_OSASIM_H
#define OSA_SIM_OSASIM_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "osa/osa.h"
#include "osa/osa_ext.h"

/** What a run is begun with. */
struct SIM_Options {
    uint64_t seed = 1;            /**< of the schedule */
    uint64_t first_tick = 1000;   /**< OSA_GetSystemTick at the start, milliseconds */
    uint32_t switch_percent = 50; /**< chance of a switch at each point; 0: only when blocked */
    uint64_t point_limit = 10'000'000;  /**< points that may pass while time stands still */
    uint64_t time_limit_ms = 3'600'000; /**< virtual time that a run may spend in waits */
    int32_t trace_level = 4;            /**< first value of OSA_TraceThreshold */
    bool echo = false;                  /**< print trace lines too */
};

/* ---- a run --------------------------------------------------------------- */

/** Starts a run with nothing alive, no files, no libraries, no faults. A run that
 * is still open is dropped; when a thread of it still runs, the process aborts
 * with a report. */
void SIM_Begin(const SIM_Options &options = {});

/** Ends the run and returns what is wrong with it: misuses and what is still
 * alive, one line each; empty when there is nothing. What was recorded can be
 * asked for until the next run begins. Blocks still alive are freed. */
std::string SIM_End();

/** The seed of this run. */
uint64_t SIM_Seed();

/* ---- schedule and time --------------------------------------------------- */

/** A point where another thread may get its turn, for code that makes no call. */
void SIM_Point();

/** The tick, in milliseconds, without being a point. */
uint64_t SIM_Tick();

/** Sets what OSA_GetSystemTick returns. Waits and sleeps under way keep the time
 * they have left. */
void SIM_TickSet(uint64_t tick);

/** Lets time pass as if the calling thread had computed for that long: no other
 * thread runs meanwhile, and waits that end in it are due at the next point.
 * OSA_ThreadSleep lets the others run instead. */
void SIM_TickAdvance(uint64_t duration_ms);

/** How many points this run has passed. */
uint64_t SIM_PointCount();

/** How often it has switched threads. */
uint64_t SIM_SwitchCount();

/* ---- traces -------------------------------------------------------------- */

/** One line of OSA_Trace, or of OSA_Traces (level 0; module, source and function
 * empty, line 0). */
struct SIM_TraceLine {
    std::string module;   /**< who speaks */
    int32_t level;        /**< 1 .. 4; 0 for a line of OSA_Traces */
    std::string source;   /**< module whose code it is */
    int32_t line;         /**< source line */
    std::string function; /**< function of that code */
    std::string text;     /**< with its line feed */
    uint64_t tick;        /**< ms */
    std::string thread;   /**< name of the thread that traced */
};

/** The lines recorded since the run began or SIM_TraceClear, oldest first; the
 * reference is valid until the next call into the layer. */
const std::vector<SIM_TraceLine> &SIM_Traces();

/** How many of them contain `part`; of that level only when it is not -1. */
uint32_t SIM_TraceCount(const std::string &part, int32_t level = -1);

/** All of them as text, each headed by its thread, tick, level, module and place:
 * two runs are the same when these are. */
std::string SIM_TraceText();

/** Forgets the lines recorded so far. */
void SIM_TraceClear();

/* ---- what is alive, and misuse ------------------------------------------- */

/** One line for each thing alive, oldest first; empty for nothing. */
std::string SIM_AliveText();

/** Misuses since the run began or SIM_MisuseClear. */
uint32_t SIM_MisuseCount();

/** The same, one line each. */
std::string SIM_MisuseText();

/** Forgets misuses, for a test that provokes one on purpose. */
void SIM_MisuseClear();

/* ---- faults -------------------------------------------------------------- */

/** From now on the n-th fallible call of the run fails, and the m-th too when m
 * is not 0. To count from here, add SIM_FallibleCount(). Each of these three
 * replaces what was set before. */
void SIM_FailNth(uint64_t n, uint64_t m = 0);

/** The n-th and every later one. */
void SIM_FailFrom(uint64_t n);

/** None any more. */
void SIM_FailNone();

/** Fallible calls made in this run. */
uint64_t SIM_FallibleCount();

/** How many of them were made to fail. */
uint64_t SIM_FailedCount();

/** The n-th fallible call: operation, caller, thread. The first million of a run
 * are remembered. */
std::string SIM_FallibleText(uint64_t n);

/* ---- files --------------------------------------------------------------- */

/** A file that exists for OSA_FileOpen only. A path not known here is read from
 * the disk. What the layer writes stays in memory under its path and never
 * reaches the disk. */
void SIM_FileAdd(const std::string &path, const std::string &content);

/** The content of a file added here or written, if there is one. */
std::optional<std::string> SIM_FileContent(const std::string &path);

/* ---- libraries ----------------------------------------------------------- */

/** Lets OSA_LibraryLoad(path) succeed and OSA_LibraryGetFunc find `symbol` there,
 * so that a test program can hold the plugins it loads. Call once per symbol.
 * Paths not known here are loaded from the disk. */
void SIM_LibraryAdd(const std::string &path, const std::string &symbol, void *address);

#endif
