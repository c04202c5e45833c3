/*
 * The event of osa/posix/event.cpp over the monitor of monitor.h: WAITERS threads wait
 * ROUNDS times each, without limit, with a time-out or without waiting at all; two threads
 * send SENDS times each. A mutex and a condition variable are as POSIX has them: a wait
 * gives the lock up and falls asleep in one step, a broadcast wakes all that sleep, a
 * signal one of them, and one sleeper may once wake for no reason. A time-out may pass at
 * any time.
 *
 * Stated on the way:
 *   - a send that finds waiters releases the one that has waited longest, and nobody who
 *     comes later takes that from it;
 *   - who returns with success was released, or took what was latched;
 *   - what is released waits; what is sent when nobody waits is latched, once.
 * Stated when nothing goes on any more:
 *   - no thread sleeps that was released, or while something is latched;
 *   - every send that was not added to one latched already has let one wait succeed, or
 *     is latched.
 * With DESTROY the only waiter releases the event's memory as soon as it has returned, as
 * a program may: the sender must not touch it any more.
 *
 * Wrong variants:
 *   LOOK_BEFORE_LOCK      a wait looks at the latch before it locks
 *   SEND_WITHOUT_LOCK     a send locks nothing
 *   SIGNAL_ONE            a send wakes any one sleeper
 *   SIGNAL_AFTER_UNLOCK   a send wakes the sleepers when it has given the lock up (DESTROY)
 *   LATCH_ALWAYS          a send latches also when it releases a waiter
 *   NO_LATCH              a send that finds no waiter is forgotten
 *   NEWEST_FIRST          a waiter is put before those that wait already
 *   TIMED_OUT_KEPT        a waiter that gives up stays in the list
 *   TIME_OUT_BLIND        a waiter that times out does not look whether it was released
 *   ASLEEP_ONCE           a waiter that wakes does not look whether it was released
 */
#ifdef DESTROY
#define WAITERS 1
#define SENDERS 1
#define ROUNDS 1
#define SENDS 1
#else
#ifndef WAITERS
#define WAITERS 3
#endif
#define SENDERS 2
#ifndef ROUNDS
#define ROUNDS 1
#endif
#ifndef SENDS
#define SENDS 2
#endif
#endif

#define NONE 255

bool gone; /* the event's memory */

/* Monitor */
bool locked;
bool asleep[WAITERS];
bool may_wake = true;

/* OSA_Event: the list has `length` waiters that were not released, the oldest first. */
bool latched;
byte oldest[WAITERS + 1];
byte length;
bool released[WAITERS];

/* What is stated is computed from these. */
byte arrived[WAITERS]; /* when a thread began to wait, 0: it does not */
byte arrivals;
byte effective; /* sends that were not added to one latched */
byte succeeded;

inline lock()
{
    atomic { !locked -> assert(!gone); locked = true }
}

inline unlock()
{
    atomic { assert(!gone && locked); locked = false }
}

inline wake_all()
{
    atomic {
        assert(!gone);
        for (each : 0 .. WAITERS - 1) {
            asleep[each] = false
        }
        each = 0
    }
}

inline wake_one()
{
    atomic {
        if
        :: asleep[0] -> asleep[0] = false
#if WAITERS > 1
        :: asleep[1] -> asleep[1] = false
        :: asleep[2] -> asleep[2] = false
#endif
        :: else
        fi
    }
}

/* append() */
inline append()
{
    d_step {
#ifdef NEWEST_FIRST
        each = length;
        do
        :: each > 0 -> oldest[each] = oldest[each - 1]; each--
        :: else -> break
        od;
        oldest[0] = me;
#else
        oldest[length] = me;
#endif
        length++;
        arrivals++;
        arrived[me] = arrivals
    }
}

inline drop_from(place)
{
    length--;
    each = place;
    do
    :: each < length -> oldest[each] = oldest[each + 1]; each++
    :: else -> break
    od;
    oldest[length] = 0;
    each = 0
}

/* remove(): of a waiter that must be there */
inline remove()
{
    d_step {
        each = 0;
        do
        :: each < length && oldest[each] != me -> each++
        :: else -> break
        od;
        assert(each < length);
        drop_from(each)
    }
}

inline succeed()
{
    succeeded++
}

/* pthread_cond_wait() and pthread_cond_timedwait(); timed_out says which end it was */
inline fall_asleep()
{
    atomic { asleep[me] = true; locked = false }
end_asleep:
    if
    :: !asleep[me]
    :: atomic { asleep[me] && may_wake -> may_wake = false; asleep[me] = false }
    :: atomic { asleep[me] && timed -> asleep[me] = false; timed_out = true }
    fi;
    lock()
}

proctype waiter(byte me)
{
    byte each, rounds;
    bool timed, timed_out;

    do
    :: rounds == ROUNDS -> break
    :: rounds < ROUNDS ->
       rounds++;
#ifdef LOOK_BEFORE_LOCK
       if
       :: atomic { latched -> latched = false; succeed() }
          goto returned
       :: !latched
       fi;
       lock();
#else
       lock();
       if
       :: atomic { latched -> latched = false; succeed() }
          goto unlocking
       :: !latched
       fi;
#endif
       if
       :: timed = false
       :: timed = true
       :: goto unlocking /* without waiting */
       fi;
       append();
       do
       :: released[me] -> break
       :: else ->
          fall_asleep();
#ifdef ASLEEP_ONCE
          break
#endif
          if
          :: timed_out -> break
          :: else
          fi
       od;
       atomic {
           if
#ifdef TIME_OUT_BLIND
           :: released[me] && !timed_out -> succeed()
#else
           :: released[me] -> succeed()
#endif
#ifdef ASLEEP_ONCE
           :: !released[me] && !timed_out -> assert(false)
#endif
           :: else ->
#ifndef TIMED_OUT_KEPT
              remove()
#endif
           fi;
           released[me] = false;
           arrived[me] = 0;
           timed = false;
           timed_out = false
       }
unlocking:
       unlock();
returned:
       skip
    od;
#ifdef DESTROY
    if
    :: succeeded > 0 -> gone = true
    :: else
    fi
#endif
}

proctype sender()
{
    byte each, sends;

    do
    :: sends == SENDS -> break
    :: sends < SENDS ->
       sends++;
#ifndef SEND_WITHOUT_LOCK
       lock();
#endif
       assert(!gone);
       if
       :: length == 0 ->
#ifndef NO_LATCH
          atomic { effective = effective + !latched; latched = true }
#else
          effective++
#endif
       :: else ->
          atomic {
              assert(arrived[oldest[0]] != 0);
              for (each : 0 .. WAITERS - 1) {
                  assert(arrived[each] == 0 || released[each] || arrived[each] >= arrived[oldest[0]])
              }
              effective++;
              released[oldest[0]] = true;
              drop_from(0);
#ifdef LATCH_ALWAYS
              latched = true
#endif
          }
#ifdef SIGNAL_AFTER_UNLOCK
          unlock();
#endif
#ifdef SIGNAL_ONE
          wake_one();
#else
          wake_all();
#endif
#ifdef SIGNAL_AFTER_UNLOCK
          goto returned
#endif
       fi;
#ifndef SEND_WITHOUT_LOCK
       unlock();
#endif
returned:
       skip
    od
}

/* All is over, or what is left sleeps: then it has reason to. */
init
{
    byte each;
    atomic {
        for (each : 0 .. WAITERS - 1) {
            run waiter(each)
        }
        for (each : 1 .. SENDERS) {
            run sender()
        }
    }
    atomic {
        timeout ->
        for (each : 0 .. WAITERS - 1) {
            assert(!released[each]);
            assert(!asleep[each] || !latched)
        }
        assert(effective == succeeded + latched)
    }
}
