/*
 * MagazineStack of osa/posix/magazine.cpp, and the threads that use such stacks.
 *
 * A thread is a process whose whole body is atomic but for step(), which stands before
 * every access to what threads share: there the scheduler, in init, lets any thread go on.
 * It declares `byte me` (its number, from 0) and `byte head, tag, under`. A magazine is
 * its number, 0 is none.
 *
 * The tag: with TAGS it counts modulo TAGS, as the true one does modulo 2^32. Without, it
 * never comes round: a bit for each thread says whether the head was changed since that
 * thread read it, which keeps the number of states small.
 *
 * The model defines THREADS and MAGAZINES, and what is to hold of a magazine, and to be
 * noted, as it leaves a stack and as it comes onto one: on_popped and on_pushed.
 */
#define NOBODY 255

byte turn = NOBODY;
bool ended[THREADS];

inline step()
{
    turn = NOBODY;
    turn == me
}

inline end_thread()
{
    ended[me] = true;
    turn = NOBODY
}

inline schedule()
{
    do
    :: atomic { turn == NOBODY && !ended[0] -> turn = 0 }
    :: atomic { turn == NOBODY && !ended[1] -> turn = 1 }
    :: atomic { turn == NOBODY && !ended[2] -> turn = 2 }
    :: atomic { turn == NOBODY && ended[0] && ended[1] && ended[2] -> break }
    od
}

typedef Stack {
    byte top;
    byte tag;
    byte stale /* bit n: thread n has not read the head since its last change */
}

byte below[MAGAZINES + 1];

#ifdef TAGS
#define UNCHANGED(s) (s.top == head && s.tag == tag)
#else
#define UNCHANGED(s) ((s.stale & (1 << me)) == 0)
#endif

inline load_head(s)
{
    head = s.top;
#ifdef TAGS
    tag = s.tag
#else
    s.stale = s.stale & (255 - (1 << me))
#endif
}

/* The half of a compare-and-exchange that writes. */
inline store_head(s, number)
{
    s.top = number;
#ifdef TAGS
    s.tag = (s.tag + 1) % TAGS
#else
    s.stale = 255
#endif
}

/* So that states that differ in nothing but what is over are one. */
inline forget_head(s)
{
    head = 0;
    tag = 0;
    under = 0;
#ifndef TAGS
    s.stale = s.stale | (1 << me)
#endif
}

#ifdef AT_ONCE

inline push(s, magazine)
{
    step();
    below[magazine] = s.top;
    s.top = magazine;
    on_pushed(magazine)
}

inline pop(s, magazine)
{
    step();
    magazine = s.top;
    if
    :: magazine != 0 -> s.top = below[magazine]; on_popped(magazine)
    :: else
    fi
}

#else

inline push(s, magazine)
{
    step();
    load_head(s);
#ifdef KEPT_BELOW
    below[magazine] = head;
#endif
    do
    :: true ->
#ifndef KEPT_BELOW
       step();
       below[magazine] = head;
#endif
       step();
       if
#ifdef BLIND_PUSH
       :: true ->
#else
       :: UNCHANGED(s) ->
#endif
          store_head(s, magazine);
          on_pushed(magazine);
          forget_head(s);
          break
       :: else -> load_head(s)
       fi
    od
}

inline pop(s, magazine)
{
    step();
    load_head(s);
    do
    :: head == 0 -> magazine = 0; forget_head(s); break
    :: else ->
       step();
       under = below[head];
       step();
       if
       :: UNCHANGED(s) ->
          store_head(s, under);
          magazine = head;
          on_popped(magazine);
          forget_head(s);
          break
       :: else -> load_head(s)
       fi
    od
}

#endif
