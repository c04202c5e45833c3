/*
 * The stack of magazines: three threads pop and push MAGAZINES magazines, STEPS times
 * each, in every order, a thread holding up to two.
 *
 * Stated after every change of the head:
 *   - what is popped was with nobody, what is pushed was with the thread that pushes it;
 *   - the list has an end, and nothing in it is with a thread;
 *   - every magazine is in the list or with a thread (none is lost).
 * Stated of the whole: no thread is ever stuck.
 *
 * Wrong variants:
 *   TAGS=1           a head without a tag: a magazine that was popped and pushed in the
 *                    meantime is mistaken for one that stayed
 *   TAGS=2, TAGS=3   a tag that comes round while one thread is between its two halves
 *   BLIND_PUSH       a push that stores the head instead of exchanging it
 *   KEPT_BELOW       a push that does not write `below` again when its exchange has failed
 */
#define THREADS 3
#ifndef MAGAZINES
#define MAGAZINES 3
#endif
#ifndef STEPS
#define STEPS 3
#endif

byte with[MAGAZINES + 1]; /* 0: nobody; else the thread's number + 1 */

#define on_pushed(magazine) assert(with[magazine] == me + 1); with[magazine] = 0; check_list()
#define on_popped(magazine) assert(with[magazine] == 0); with[magazine] = me + 1; check_list()

#include "stack.pml"

Stack stack;

inline check_list()
{
    d_step {
        at = stack.top;
        do
        :: at != 0 && seen <= MAGAZINES -> assert(with[at] == 0); seen++; at = below[at]
        :: else -> break
        od;
        assert(at == 0); /* it ends */
        for (at : 1 .. MAGAZINES) {
            seen = seen + (with[at] != 0)
        }
        assert(seen == MAGAZINES); /* none is lost, none is there twice */
        at = 0;
        seen = 0
    }
}

proctype thread(byte me)
{
    byte head, tag, under;
    byte first, second; /* held */
    byte steps;
    byte at, seen;

    atomic {
        turn == me;
        do
        :: steps == STEPS -> break
        :: steps < STEPS && first == 0 -> steps++; pop(stack, first)
        :: steps < STEPS && first != 0 && second == 0 -> steps++; pop(stack, second)
        :: steps < STEPS && first != 0 -> steps++; push(stack, first); first = second; second = 0
        :: steps < STEPS && second != 0 -> steps++; push(stack, second); second = 0
        od;
        end_thread()
    }
}

init
{
    byte number;
    atomic {
        for (number : 1 .. MAGAZINES) {
            below[number] = stack.top;
            stack.top = number
        }
        for (number : 0 .. THREADS - 1) {
            run thread(number)
        }
    }
    schedule()
}
