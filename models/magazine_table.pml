/*
 * The making of magazines, and the table that finds one by its number
 * (osa/posix/magazine.cpp): THREADS threads make MAKES magazines each and look up those
 * that others have passed on. The first segment has one magazine, the next two, and so
 * on; there are SEGMENTS, and once the memory for one may be refused.
 *
 * Stated:
 *   - no number and no magazine is given to two makers;
 *   - what is looked up is the magazine that was made under the number, in memory that
 *     has not been released;
 *   - a number fails only where memory was refused or past the last segment;
 *   - in the end there is no memory but that of the table's segments.
 *
 * Wrong variants:
 *   NUMBER_IN_TWO_STEPS   the number is read and written, not added to
 *   SEGMENT_STORED        a segment is stored without looking whether there is one
 *   LOSER_KEPT            who comes second with a segment does not release its own
 *   LOSER_USED            ... or goes on with what it has released
 */
#define THREADS 3
#define MAKES 2
#define NUMBERS 6  /* THREADS * MAKES */
#define SEGMENTS 2 /* for the numbers 1 to 3 */
#define BLOCKS 7   /* of memory that can be asked for, from 1 */
#define WIDEST 2   /* magazines in the last segment */

byte made;
byte segments[SEGMENTS]; /* a memory block, 0 is none */

/* Of each block: whether it is there, and the numbers written into its magazines. */
bool there[BLOCKS];
byte number_in[14]; /* BLOCKS * WIDEST */
byte next_block = 1;
bool refused;

bool passed_on[7]; /* by number */
byte lost;
byte done;

#define PLACE(segment, offset) ((segment) * WIDEST + (offset))

inline place_of(number)
{
    d_step {
        if
        :: number == 1 -> index = 0; offset = 0
        :: number > 1 && number <= 3 -> index = 1; offset = number - 2
        :: else -> index = 2; offset = 0 /* there is none */
        fi
    }
}

/* `block` stays 0 when memory is refused. */
inline allocate(block)
{
    atomic {
        if
        :: block = next_block; next_block++; there[block] = true
        :: !refused -> refused = true
        fi
    }
}

inline release(block)
{
    d_step { assert(there[block]); there[block] = false }
}

/* segment_for() */
inline find_or_make(segment)
{
    segment = segments[index];
    if
    :: segment != 0
    :: else ->
       allocate(own);
       if
       :: own == 0
#ifdef SEGMENT_STORED
       :: own != 0 -> segments[index] = own; segment = own
#else
       :: own != 0 ->
          atomic {
              segment = segments[index];
              if
              :: segment == 0 -> segments[index] = own; segment = own
              :: else
              fi
          }
          if
          :: segment == own
          :: else ->
#ifndef LOSER_KEPT
             release(own);
#endif
#ifdef LOSER_USED
             segment = own;
#endif
             skip
          fi
#endif
       fi;
       own = 0
    fi
}

proctype maker()
{
    byte number, index, offset, segment, own;
    byte makes;

    do
    :: makes < MAKES ->
       makes++;
#ifdef NUMBER_IN_TWO_STEPS
       number = made;
       number++;
       made = number;
#else
       d_step { made++; number = made };
#endif
       place_of(number);
       if
       :: index < SEGMENTS -> find_or_make(segment)
       :: else -> segment = 0
       fi;
       atomic {
           if
           :: segment == 0 ->
              assert(index == SEGMENTS || refused);
              lost++
           :: else ->
              assert(there[segment]);
              assert(number_in[PLACE(segment, offset)] == 0);
              assert(!passed_on[number]);
              number_in[PLACE(segment, offset)] = number;
              passed_on[number] = true
           fi;
           number = 0;
           index = 0;
           offset = 0;
           segment = 0
       }
    :: atomic { /* magazine_of() of what came out of a stack */
           if
           :: passed_on[1] -> number = 1
           :: passed_on[2] -> number = 2
           :: passed_on[3] -> number = 3
           fi;
           place_of(number)
       }
       atomic {
           segment = segments[index];
           assert(segment != 0 && there[segment]);
           assert(number_in[PLACE(segment, offset)] == number);
           number = 0;
           index = 0;
           offset = 0;
           segment = 0
       }
    :: atomic { makes == MAKES -> done++; break }
    od
}

init
{
    byte number, segment;
    atomic {
        do
        :: number < THREADS -> run maker(); number++
        :: else -> break
        od
    }
    atomic {
        done == THREADS ->
        assert(made == NUMBERS);
        for (number : 1 .. NUMBERS) {
            lost = lost + passed_on[number]
        }
        assert(lost == NUMBERS);
        /* magazines_release() */
        for (segment : 0 .. SEGMENTS - 1) {
            if
            :: segments[segment] != 0 -> release(segments[segment])
            :: else
            fi
        }
        for (segment : 0 .. BLOCKS - 1) {
            assert(!there[segment])
        }
    }
}
