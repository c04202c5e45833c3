/*
 * A pool of blocks (osa/posix/pool.cpp, pool_stock.cpp): three threads take and give,
 * STEPS times each and the first once more, in every order, and end. Of these the last WITHOUT_STATE could get no
 * state of their own. A block may be given back by another thread than took it. There is
 * memory for CHUNKS chunks of CAPACITY blocks, and for MAGAZINES magazines. When it
 * begins, all blocks of a first chunk are out, or there is no chunk yet.
 *
 * Depot and the stack of empty magazines are those of stack.pml, step by step. What a
 * thread does with a magazine that it has is no step of its own: what is asserted of the
 * stacks' changes says that nobody else has it.
 *
 * Stated on the way:
 *   - no block is handed out that is out;
 *   - a magazine is in one stack or with one thread;
 *   - what comes out of the depot has blocks, what comes from the empty ones has none;
 *   - no thread is ever stuck.
 * Stated in the end, when all threads have handed back what they had:
 *   - both stacks have an end, and hold every magazine that was made, once;
 *   - every block is out, or in a magazine of the depot, or lies idle because there was no
 *     memory for a magazine; none is in two places;
 *   - what is counted as out is out.
 *
 * Wrong variants:
 *   TAGS=1             stacks without a tag
 *   COUNT_NOT_UNLOADED a magazine is put down without what is in it
 *   SPARE_DROPPED      a new spare takes the place of the old one, which is not put away
 *   LOADED_KEPT        a thread ends without handing back what it has loaded
 *   ALL_TO_DEPOT       magazines are put away without a look at what is in them
 *   IDLE_NOT_COUNTED   a block that nobody can keep still counts as out
 *   FULL_TAKEN         a thread without state adds to a magazine of the depot that is full
 */
#define THREADS 3
#ifndef WITHOUT_STATE
#define WITHOUT_STATE 0
#endif
#ifndef STEPS
#define STEPS 2
#endif
#ifndef CAPACITY
#define CAPACITY 1
#endif
#ifndef CHUNKS
#define CHUNKS 3
#endif
#ifndef MAGAZINES
#define MAGAZINES 5
#endif
#define BLOCKS (CHUNKS * CAPACITY)

#define IDLE 0 /* in a magazine, or not made yet */
#define OUT 1
#define ON_ITS_WAY 2 /* given back, not yet in a magazine */
#define LYING 3      /* until the pools stop */

byte with[MAGAZINES + 1]; /* 0: in a stack; else the thread's number + 1 */
byte count_in[MAGAZINES + 1];
byte block_in[(MAGAZINES + 1) * CAPACITY];

#define BLOCK(magazine, index) block_in[(magazine)*CAPACITY + (index)]

#define on_pushed(magazine) assert(with[magazine] == me + 1); with[magazine] = 0
#define on_popped(magazine) assert(with[magazine] == 0); with[magazine] = me + 1

#include "stack.pml"

Stack depot;
Stack kept;     /* empty ones */
byte magazines; /* made so far; magazine_table.pml is about how */
byte chunks;
byte block_is[BLOCKS];
short out_of_others; /* what ended threads and those without a state add to the count */

/* magazine_take_empty() */
inline take_empty(magazine)
{
    pop(kept, magazine);
    if
    :: magazine == 0 && magazines < MAGAZINES ->
       magazines++;
       magazine = magazines;
       with[magazine] = me + 1
    :: else
    fi;
    assert(magazine == 0 || count_in[magazine] == 0)
}

/* put_away() and magazine_keep_empty() */
inline put_away(magazine)
{
    if
#ifdef ALL_TO_DEPOT
    :: true -> push(depot, magazine)
#else
    :: count_in[magazine] > 0 -> push(depot, magazine)
#endif
    :: else -> push(kept, magazine)
    fi
}

/* fill_from_new_chunk() */
inline fill_from_new_chunk(magazine)
{
    d_step {
        for (index : 0 .. CAPACITY - 1) {
            BLOCK(magazine, index) = chunks * CAPACITY + index
        }
        index = 0;
        chunks++;
        count_in[magazine] = CAPACITY
    }
}

/* find_stocked() and make_stocked() */
inline find_stocked(magazine)
{
    pop(depot, magazine);
    if
    :: magazine != 0 -> assert(count_in[magazine] > 0)
    :: else ->
       take_empty(magazine);
       if
       :: magazine == 0
       :: magazine != 0 && chunks < CHUNKS -> fill_from_new_chunk(magazine)
       :: magazine != 0 && chunks == CHUNKS -> push(kept, magazine); magazine = 0
       fi
    fi
}

/* unload_count() */
inline unload_count()
{
#ifndef COUNT_NOT_UNLOADED
    count_in[loaded] = count;
#endif
    balance = balance - count;
    count = 0
}

/* load() */
inline load(magazine)
{
    if
    :: loaded != 0 ->
       unload_count();
       if
#ifndef SPARE_DROPPED
       :: spare != 0 && spare != magazine -> put_away(spare)
#endif
       :: else
       fi;
       spare = loaded
    :: else
    fi;
    loaded = magazine;
    balance = balance + count_in[magazine];
    count = count_in[magazine]
}

/* restock() */
inline restock()
{
    found = spare;
    if
    :: found == 0 || count_in[found] == 0 -> find_stocked(found)
    :: else
    fi;
    if
    :: found != 0 -> load(found)
    :: else
    fi
}

/* make_room() */
inline make_room()
{
    found = spare;
    if
    :: found == 0 || count_in[found] > 0 -> take_empty(found)
    :: else
    fi;
    if
    :: found != 0 -> load(found)
    :: else
    fi
}

inline hand_out(block)
{
    assert(block_is[block] == IDLE);
    block_is[block] = OUT;
    block = 0
}

inline take_back(magazine, place)
{
    assert(place < CAPACITY);
    BLOCK(magazine, place) = block;
    block_is[block] = IDLE
}

/* take() and take_slowly() with a state */
inline take()
{
    if
    :: count == 0 -> restock()
    :: else
    fi;
    if
    :: count > 0 -> count--; hand_out(BLOCK(loaded, count))
    :: else /* there is no memory */
    fi
}

/* give() and give_slowly() with a state */
inline give()
{
    if
    :: loaded == 0 || count == CAPACITY -> make_room()
    :: else
    fi;
    if
    :: loaded != 0 && count < CAPACITY -> take_back(loaded, count); count++
    :: else ->
       block_is[block] = LYING;
#ifndef IDLE_NOT_COUNTED
       balance--
#endif
    fi
}

/* take_without_state() and take_from_depot() */
inline take_from_depot()
{
    find_stocked(found);
    if
    :: found != 0 ->
       count_in[found]--;
       hand_out(BLOCK(found, count_in[found]));
       put_away(found);
       out_of_others++
    :: else
    fi
}

/* give_slowly() without a state, and give_to_depot() */
inline give_to_depot()
{
    out_of_others--;
    pop(depot, found);
    if
#ifndef FULL_TAKEN
    :: found != 0 && count_in[found] == CAPACITY -> put_away(found); found = 0
#endif
    :: else
    fi;
    if
    :: found == 0 -> take_empty(found)
    :: else
    fi;
    if
    :: found != 0 ->
       take_back(found, count_in[found]);
       count_in[found]++;
       put_away(found)
    :: else -> block_is[block] = LYING
    fi
}

/* pools_hand_back() and keep_counts() */
inline hand_back()
{
    if
    :: loaded != 0 ->
       unload_count();
#ifndef LOADED_KEPT
       put_away(loaded);
#endif
       if
       :: spare != 0 -> put_away(spare)
       :: else
       fi
    :: else
    fi;
    out_of_others = out_of_others + balance
}

/* Any block that is out may be given back, by any thread. */
inline choose_block()
{
    if
    :: block_is[0] == OUT -> block = 0
    :: block_is[1] == OUT -> block = 1
    :: block_is[2] == OUT -> block = 2
#if BLOCKS > 3
    :: block_is[3] == OUT -> block = 3
#endif
    fi;
    block_is[block] = ON_ITS_WAY
}

#if BLOCKS > 3
#define SOME_OUT (block_is[0] == OUT || block_is[1] == OUT || block_is[2] == OUT || block_is[3] == OUT)
#else
#define SOME_OUT (block_is[0] == OUT || block_is[1] == OUT || block_is[2] == OUT)
#endif

/* The first makes one step more: enough for a magazine to go all ways. */
#define STEPS_OF(thread) (STEPS + (thread == 0))

proctype thread(byte me; bool has_state)
{
    byte head, tag, under;
    byte loaded, spare, count;
    short balance;
    byte found, index, block;
    byte steps;

    atomic {
        turn == me;
        do
        :: steps == STEPS_OF(me) -> break
        :: steps < STEPS_OF(me) ->
           steps++;
           if
           :: has_state -> take()
           :: else -> take_from_depot()
           fi;
           found = 0
        :: steps < STEPS_OF(me) && SOME_OUT ->
           steps++;
           choose_block();
           if
           :: has_state -> give()
           :: else -> give_to_depot()
           fi;
           found = 0;
           block = 0
        od;
        if
        :: has_state -> hand_back()
        :: else
        fi;
        end_thread()
    }
}

inline look_through(at, stocked)
{
    do
    :: at != 0 ->
       seen++;
       assert(seen <= magazines); /* the lists have an end */
       assert(stocked == (count_in[at] > 0));
       index = 0;
       do
       :: index < count_in[at] ->
          assert(block_is[BLOCK(at, index)] == IDLE);
          block_is[BLOCK(at, index)] = LYING; /* seen */
          index++
       :: else -> break
       od;
       at = below[at]
    :: else -> break
    od
}

init
{
    byte number, index, seen, at;
    short out;

    atomic {
        if
        :: chunks = 1;
           for (number : 0 .. CAPACITY - 1) {
               block_is[number] = OUT;
               out_of_others++
           }
        :: true
        fi;
        for (number : 0 .. THREADS - 1) {
            run thread(number, number < THREADS - WITHOUT_STATE)
        }
    }
    schedule();
    atomic {
        for (number : 0 .. BLOCKS - 1) {
            out = out + (block_is[number] == OUT)
        }
        assert(out == out_of_others);
        at = depot.top;
        look_through(at, true);
        at = kept.top;
        look_through(at, false);
        assert(seen == magazines);
        for (number : 0 .. chunks * CAPACITY - 1) {
            assert(block_is[number] == OUT || block_is[number] == LYING)
        }
    }
}
