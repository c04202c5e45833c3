// Copies of text come from the C library, where the simulator's faults do not reach. In a
// program that links this, they fail on demand.
#ifndef TESTS_SUPPORT_TEXT_FAULTS_H
#define TESTS_SUPPORT_TEXT_FAULTS_H

#include <cstdint>

// The n-th copy from now on fails, once; 0: none.
void fail_text_copy(uint64_t n);

// Whether it has.
bool text_copy_failed();

#endif
