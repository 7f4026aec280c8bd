/*
 * Counts the process's heap allocations for the no-allocation test and the
 * benchmarks. Linking heap_counter.cpp routes every allocation to
 * on_heap_alloc, which the program defines.
 */
#ifndef ZNPDK_TESTS_HEAP_COUNTER_H
#define ZNPDK_TESTS_HEAP_COUNTER_H

/* Called once per allocation, with malloc's caller where it is known; under a
 * sanitizer, which owns malloc and reports through a hook, with nullptr. */
void on_heap_alloc(void* caller);

#endif
