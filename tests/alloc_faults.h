// Allocation failures on demand, for test programs.
//
// Linking tests/alloc_faults.cpp into a test program replaces the C and C++
// allocation functions and pthread_create for the whole process (the
// library's calls and those of libstdc++, OpenCV and glibc bind to the
// program's definitions first). Each replacement hands the work on to the
// next definition (dlsym(RTLD_NEXT)): glibc's, or the sanitizer runtime's
// under AddressSanitizer, which then still checks and tracks every block.
//
// While armed, every allocation that a caller makes is counted, on any
// thread: malloc, calloc, realloc, posix_memalign, aligned_alloc, memalign,
// every operator new / new[] (plain, nothrow, aligned) and pthread_create.
// Allocations that the next definition makes on behalf of one of these (the
// malloc inside libstdc++'s operator new, the thread's bookkeeping inside
// pthread_create) belong to the outer call and are not counted again. Nor
// are those of the dynamic linker (a dlopen()'s bookkeeping): they never fail,
// and LeakSanitizer leaves them out as it does without this layer.
//
// The armed allocation fails the way the real one reports exhaustion: null
// from malloc and its kin (and from nothrow new), std::bad_alloc from the
// throwing operator new, EAGAIN from pthread_create. Only that one fails:
// every later allocation succeeds again, so a run shows what one failure
// does, and the point of failure walks through a call one index at a time.
//
// With SEGCORE_ALLOC_FAULTS_TRACE set in the environment, the stack of the
// allocation that fails is written to stderr.
#ifndef SEGCORE_TESTS_ALLOC_FAULTS_H
#define SEGCORE_TESTS_ALLOC_FAULTS_H

namespace alloc_faults {

// From now on counts allocations; the n-th counted one (0-based) fails.
// n < 0: counts only, never fails.
void failAt(long n);
// Stops counting and failing.
void stop();
// Allocations counted since the last failAt().
long counted();
// Whether the armed failure happened since the last failAt().
bool fired();

// Blocks handed out and not yet released, counted whether armed or not (each
// block once, however many layers of allocators it went through; the few
// blocks served before the real allocator was found are left out, as they
// are never released).
long liveBlocks();

}  // namespace alloc_faults

#endif
