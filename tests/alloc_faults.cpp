// Allocation failures on demand (tests/alloc_faults.h), by interposition.
//
// The program defines the allocation functions itself; the dynamic linker
// binds every call in the process, the shared libraries' included, to the
// program's definitions first. Each definition decides whether this is the
// armed allocation and otherwise hands the call to the next definition in
// the search order (dlsym(RTLD_NEXT)), so glibc, or the sanitizer runtime
// under AddressSanitizer, still does the real work; that keeps LeakSanitizer's
// accounting and ASan's checks intact, which a private heap would defeat.
//
// Layers. libstdc++'s operator new calls malloc, its nothrow new calls the
// throwing one, glibc's pthread_create allocates the thread's bookkeeping:
// those inner calls land here again. A per-thread depth tells them apart:
// only the outermost call is an allocation point that can fail, and a block
// is counted as live by the innermost layer that made it (under ASan,
// operator new does not go through malloc, so there the outer layer counts
// it). Either way each block is counted once, and released once.
//
// Bootstrap. dlsym itself may allocate (dlerror's buffer) before the next
// definitions are known. Those requests, and any made by another thread
// while the lookup runs, are served from a static buffer whose blocks are
// never given back; free ignores them. glibc's __libc_malloc would do as a
// fallback in the plain build, but under ASan a block from it handed to the
// sanitizer's free is reported as a bad free, so the buffer serves both.
//
// The dynamic linker. ld.so takes its memory from the process's malloc,
// calloc and realloc too (a dlopen()'s search lists, dynamic TLS), so it
// lands here. Those are not allocation points: the library never asks the
// loader for anything, and glibc treats a loader that runs out inside
// pthread_exit() or backtrace() as fatal. LeakSanitizer normally lets blocks
// whose allocation was called from ld.so alone, since the loader keeps the
// pointers to them in memory it does not scan (link maps made at start-up);
// behind this layer their caller would be the layer, and every such block
// would be reported as leaked. So those blocks are made with the leak
// checker paused for the thread, which it then leaves out the same way.
#include "tests/alloc_faults.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <errno.h>
#include <link.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <new>

// The leak checker's pause, present under LeakSanitizer only.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

namespace {

using MallocFn = void* (*)(size_t);
using CallocFn = void* (*)(size_t, size_t);
using ReallocFn = void* (*)(void*, size_t);
using FreeFn = void (*)(void*);
using PosixMemalignFn = int (*)(void**, size_t, size_t);
using AlignedFn = void* (*)(size_t, size_t);
using NewFn = void* (*)(size_t);
using NewNothrowFn = void* (*)(size_t, const std::nothrow_t&);
using NewAlignedFn = void* (*)(size_t, std::align_val_t);
using NewAlignedNothrowFn = void* (*)(size_t, std::align_val_t, const std::nothrow_t&);
using DeleteFn = void (*)(void*);
using DeleteSizedFn = void (*)(void*, size_t);
using DeleteAlignedFn = void (*)(void*, std::align_val_t);
using DeleteSizedAlignedFn = void (*)(void*, size_t, std::align_val_t);
using DeleteNothrowFn = void (*)(void*, const std::nothrow_t&);
using DeleteAlignedNothrowFn = void (*)(void*, std::align_val_t, const std::nothrow_t&);
using PthreadCreateFn = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

// The next definitions; index 0 is the single object, 1 the array form.
struct Next {
  MallocFn malloc;
  CallocFn calloc;
  ReallocFn realloc;
  FreeFn free;
  PosixMemalignFn posixMemalign;
  AlignedFn alignedAlloc;
  AlignedFn memalign;
  MallocFn valloc;
  MallocFn pvalloc;
  NewFn newPlain[2];
  NewNothrowFn newNothrow[2];
  NewAlignedFn newAligned[2];
  NewAlignedNothrowFn newAlignedNothrow[2];
  DeleteFn del[2];
  DeleteSizedFn delSized[2];
  DeleteAlignedFn delAligned[2];
  DeleteSizedAlignedFn delSizedAligned[2];
  DeleteNothrowFn delNothrow[2];
  DeleteAlignedNothrowFn delAlignedNothrow[2];
  PthreadCreateFn pthreadCreate;
};
Next g_next;

// --- The dynamic linker ------------------------------------------------------

// ld.so's code, from its program headers (mapped with its first segment).
uintptr_t g_loaderBegin = 0, g_loaderEnd = 0;

void findLoader() {
  const uintptr_t base = getauxval(AT_BASE);
  if (base == 0) return;  // no interpreter: a static program
  const auto* header = reinterpret_cast<const ElfW(Ehdr)*>(base);
  const auto* segments = reinterpret_cast<const ElfW(Phdr)*>(base + header->e_phoff);
  for (int i = 0; i < header->e_phnum; ++i) {
    const ElfW(Phdr)& s = segments[i];
    if (s.p_type != PT_LOAD || (s.p_flags & PF_X) == 0) continue;
    g_loaderBegin = base + s.p_vaddr;
    g_loaderEnd = g_loaderBegin + s.p_memsz;
  }
}

// Whether the allocation function was called by ld.so itself.
inline bool fromLoader(const void* caller) {
  const uintptr_t a = reinterpret_cast<uintptr_t>(caller);
  return a >= g_loaderBegin && a < g_loaderEnd;
}

// Pauses the leak checker for this thread while a loader block is made.
class LoaderBlock {
 public:
  explicit LoaderBlock(bool loader)
      : paused_(loader && __lsan_disable != nullptr && __lsan_enable != nullptr) {
    if (paused_) __lsan_disable();
  }
  ~LoaderBlock() {
    if (paused_) __lsan_enable();
  }
  LoaderBlock(const LoaderBlock&) = delete;
  LoaderBlock& operator=(const LoaderBlock&) = delete;

 private:
  bool paused_;
};

// 0 unresolved, 1 lookup running, 2 resolved.
std::atomic<int> g_state{0};

// Where the sanitizer runtime is linked into the program itself (clang's
// AddressSanitizer), the next definition after the program's is glibc's, past
// the sanitizer: its allocations would escape ASan's heap and its threads ASan's
// bookkeeping. The runtime also exports each of its C interceptors as
// __interceptor_<name>; when that exists it is the next definition. (With
// GCC's shared runtime it is the same function RTLD_NEXT finds.)
template <class Fn>
void look(Fn& fn, const char* name) {
  char interceptor[64];
  if (name[0] != '_' && std::snprintf(interceptor, sizeof(interceptor), "__interceptor_%s", name) > 0) {
    if (void* f = dlsym(RTLD_DEFAULT, interceptor)) {
      fn = reinterpret_cast<Fn>(f);
      return;
    }
  }
  fn = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

// The single-object and array forms of a C++ operator.
template <class Fn>
void lookBoth(Fn (&fn)[2], const char* single, const char* array) {
  look(fn[0], single);
  look(fn[1], array);
}

void resolve() {
  int expected = 0;
  if (!g_state.compare_exchange_strong(expected, 1)) return;
  Next& n = g_next;
  look(n.malloc, "malloc");
  look(n.calloc, "calloc");
  look(n.realloc, "realloc");
  look(n.free, "free");
  look(n.posixMemalign, "posix_memalign");
  look(n.alignedAlloc, "aligned_alloc");
  look(n.memalign, "memalign");
  look(n.valloc, "valloc");
  look(n.pvalloc, "pvalloc");
  lookBoth(n.newPlain, "_Znwm", "_Znam");
  lookBoth(n.newNothrow, "_ZnwmRKSt9nothrow_t", "_ZnamRKSt9nothrow_t");
  lookBoth(n.newAligned, "_ZnwmSt11align_val_t", "_ZnamSt11align_val_t");
  lookBoth(n.newAlignedNothrow, "_ZnwmSt11align_val_tRKSt9nothrow_t", "_ZnamSt11align_val_tRKSt9nothrow_t");
  lookBoth(n.del, "_ZdlPv", "_ZdaPv");
  lookBoth(n.delSized, "_ZdlPvm", "_ZdaPvm");
  lookBoth(n.delAligned, "_ZdlPvSt11align_val_t", "_ZdaPvSt11align_val_t");
  lookBoth(n.delSizedAligned, "_ZdlPvmSt11align_val_t", "_ZdaPvmSt11align_val_t");
  lookBoth(n.delNothrow, "_ZdlPvRKSt9nothrow_t", "_ZdaPvRKSt9nothrow_t");
  lookBoth(n.delAlignedNothrow, "_ZdlPvSt11align_val_tRKSt9nothrow_t", "_ZdaPvSt11align_val_tRKSt9nothrow_t");
  look(n.pthreadCreate, "pthread_create");
  findLoader();
  // Without these four nothing can be served; the C++ forms fall back on them.
  if (n.malloc == nullptr || n.calloc == nullptr || n.realloc == nullptr || n.free == nullptr ||
      n.posixMemalign == nullptr) {
    abort();
  }
  g_state.store(2, std::memory_order_release);
}

inline bool ready() {
  if (g_state.load(std::memory_order_acquire) == 2) return true;
  resolve();
  return g_state.load(std::memory_order_acquire) == 2;
}

// --- Bootstrap buffer -------------------------------------------------------

constexpr size_t kBootBytes = 256 * 1024;
constexpr size_t kBootHeader = 16;  // the block's size, kept in front of it
alignas(64) unsigned char g_boot[kBootBytes];
std::atomic<size_t> g_bootUsed{0};

bool fromBoot(const void* p) {
  const unsigned char* c = static_cast<const unsigned char*>(p);
  return c >= g_boot && c < g_boot + kBootBytes;
}

void* bootAlloc(size_t n, size_t align = 16) {
  if (align < 16) align = 16;
  size_t start, next;
  size_t used = g_bootUsed.load();
  do {
    start = (used + kBootHeader + align - 1) & ~(align - 1);
    next = start + n;
    if (next > kBootBytes || next < start) abort();  // the lookup never needs this much
  } while (!g_bootUsed.compare_exchange_weak(used, next));
  memcpy(g_boot + start - sizeof(size_t), &n, sizeof(size_t));
  return g_boot + start;  // zero: the buffer is static and never reused
}

size_t bootSize(const void* p) {
  size_t n;
  memcpy(&n, static_cast<const unsigned char*>(p) - sizeof(size_t), sizeof(size_t));
  return n;
}

// --- Counting ---------------------------------------------------------------

std::atomic<bool> g_counting{false};
std::atomic<long> g_count{0};
std::atomic<long> g_failIndex{-1};
std::atomic<bool> g_fired{false};
std::atomic<long> g_live{0};
std::atomic<bool> g_trace{false};

// The stack of the allocation that fails, on stderr (backtrace_symbols_fd
// needs no memory; the unwinder is loaded by failAt()).
void traceFailure() {
  static const char head[] = "alloc_faults: the armed allocation fails here:\n";
  if (write(2, head, sizeof(head) - 1) < 0) return;
  void* frames[40];
  backtrace_symbols_fd(frames, backtrace(frames, 40), 2);
}

// Whether the allocation point being passed is the armed one. Only one
// allocation can match the index, so at most one fails per arming.
bool armedHere() {
  if (!g_counting.load(std::memory_order_acquire)) return false;
  const long k = g_count.fetch_add(1);
  if (k != g_failIndex.load(std::memory_order_relaxed)) return false;
  g_fired.store(true);
  if (g_trace.load(std::memory_order_relaxed)) traceFailure();
  return true;
}

// Starts at 1 on every thread: what runs on a new thread before its start
// routine (the sanitizer runtime's set-up of the thread, which asks glibc for
// the thread's attributes) is not the program's own allocation, and is not
// one in the field either. The start routine runs at 0 (startThread below),
// and so does the main thread once this file's constructor has run.
__thread int t_depth __attribute__((tls_model("initial-exec"))) = 1;
// Whether the thread is the main one or runs its start routine through
// startThread: only such a thread's allocations are points that can fail.
// Kept apart from t_depth and cleared when the routine ends, however it ends
// (pthread_exit too), so that a thread that reuses the stack and TLS of an
// earlier one never inherits its state: with the sanitizer runtime linked
// into the program (clang), the runtime's set-up of a new thread was seen
// failing on such a stale depth.
__thread bool t_started __attribute__((tls_model("initial-exec"))) = false;
// The kernel's id of the thread that set t_started. With clang's runtime the
// set-up of a new thread (before its start routine) was still seen with the
// flag of an earlier thread; a thread id is never that of an earlier live or
// recent thread, so a flag that is not the thread's own is recognised.
__thread pid_t t_startedBy __attribute__((tls_model("initial-exec"))) = 0;

pid_t threadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }
// Set once a layer below the current one has counted a block made or
// released, so that the layers above leave it alone.
__thread bool t_counted __attribute__((tls_model("initial-exec"))) = false;

// One call through the replacements, from entry to return.
class Layer {
 public:
  Layer() : saved_(t_counted) {
    ++t_depth;
    t_counted = false;
  }
  ~Layer() {
    --t_depth;
    t_counted = saved_ || mine_;
  }
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;

  // Whether this call is an allocation point of the caller's (not one made
  // inside another replacement) and is the armed one.
  bool fails() const { return t_depth == 1 && t_started && t_startedBy == threadId() && armedHere(); }
  // Records `delta` live blocks unless a layer below did.
  void count(long delta) {
    if (delta != 0 && !t_counted) g_live.fetch_add(delta, std::memory_order_relaxed);
    mine_ = mine_ || delta != 0 || t_counted;
  }
  void made(const void* p) { count(p != nullptr ? 1 : 0); }

 private:
  bool saved_;
  bool mine_ = false;
};

// A forked child's one thread is the forking thread under a new id.
void forkedChild() {
  if (t_started) t_startedBy = threadId();
}

__attribute__((constructor)) void mainThreadCounts() {
  t_depth = 0;
  t_started = true;
  t_startedBy = threadId();
  pthread_atfork(nullptr, nullptr, forkedChild);
}

// What a new thread is to run, handed to it through startThread.
struct Start {
  void* (*routine)(void*);
  void* arg;
};

void routineEnded(void*) {
  t_depth = 1;
  t_started = false;
}

void* startThread(void* p) {
  const Start start = *static_cast<Start*>(p);
  free(p);
  void* result = nullptr;
  pthread_cleanup_push(routineEnded, nullptr);
  t_depth = 0;
  t_started = true;
  t_startedBy = threadId();
  result = start.routine(start.arg);
  pthread_cleanup_pop(1);
  return result;
}

// --- Shared bodies ----------------------------------------------------------

// `loader`: called by ld.so (fromLoader()); such a call never fails here.
void* plainAlloc(size_t n, bool loader = false) {
  if (!ready()) return bootAlloc(n);
  Layer layer;
  if (!loader && layer.fails()) return nullptr;
  const LoaderBlock pause(loader);
  void* p = g_next.malloc(n);
  layer.made(p);
  return p;
}

void release(void* p) {
  if (p == nullptr || fromBoot(p)) return;
  Layer layer;
  g_next.free(p);
  layer.count(-1);
}

int alignedAlloc(void** out, size_t align, size_t n) {
  if (!ready()) {
    *out = bootAlloc(n, align);
    return 0;
  }
  Layer layer;
  if (layer.fails()) return ENOMEM;
  const int rc = g_next.posixMemalign(out, align, n);
  layer.made(rc == 0 ? *out : nullptr);
  return rc;
}

// An allocation point that fails with null (and sets `*failed` when given):
// served from the bootstrap buffer (`bootBytes`, `align`) before the lookup,
// otherwise by `make` on the next definitions.
template <class Make>
void* pointOrNull(size_t bootBytes, size_t align, Make make, bool* failed = nullptr) {
  if (!ready()) return bootAlloc(bootBytes, align);
  Layer layer;
  if (layer.fails()) {
    if (failed != nullptr) *failed = true;
    return nullptr;
  }
  void* p = make();
  layer.made(p);
  return p;
}

// The C++ forms. `array` picks new / new[]; a missing next form (it is never
// missing with libstdc++ or the sanitizer runtimes) would fall back on the C
// allocator.
void* alignedFallBack(size_t n, std::align_val_t a) {
  void* p = nullptr;
  return g_next.posixMemalign(&p, static_cast<size_t>(a), n ? n : 1) == 0 ? p : nullptr;
}

void* newBody(size_t n, int array, bool* failed) {
  return pointOrNull(
      n, 16, [&] { return g_next.newPlain[array] ? g_next.newPlain[array](n) : g_next.malloc(n ? n : 1); },
      failed);
}

void* newNothrowBody(size_t n, int array) {
  return pointOrNull(n, 16, [&] {
    return g_next.newNothrow[array] ? g_next.newNothrow[array](n, std::nothrow) : g_next.malloc(n ? n : 1);
  });
}

void* newAlignedBody(size_t n, std::align_val_t a, int array, bool* failed) {
  return pointOrNull(
      n, static_cast<size_t>(a),
      [&] { return g_next.newAligned[array] ? g_next.newAligned[array](n, a) : alignedFallBack(n, a); },
      failed);
}

void* newAlignedNothrowBody(size_t n, std::align_val_t a, int array) {
  return pointOrNull(n, static_cast<size_t>(a), [&] {
    return g_next.newAlignedNothrow[array] ? g_next.newAlignedNothrow[array](n, a, std::nothrow)
                                           : alignedFallBack(n, a);
  });
}

// Every delete form goes to its own next form (the sanitizer compares the
// form of new and delete), or to free.
template <class Call>
void deleteBody(void* p, bool haveNext, Call&& call) {
  if (p == nullptr || fromBoot(p)) return;
  Layer layer;
  if (haveNext) {
    call();
  } else {
    g_next.free(p);
  }
  layer.count(-1);
}

}  // namespace

namespace alloc_faults {

void failAt(long n) {
  g_counting.store(false);
  g_count.store(0);
  g_fired.store(false);
  g_failIndex.store(n < 0 ? -1 : n);
  const bool trace = n >= 0 && getenv("SEGCORE_ALLOC_FAULTS_TRACE") != nullptr;
  if (trace) {
    void* frame[1];
    backtrace(frame, 1);
  }
  g_trace.store(trace);
  g_counting.store(true, std::memory_order_release);
}

void stop() { g_counting.store(false, std::memory_order_release); }

long counted() { return g_count.load(); }

bool fired() { return g_fired.load(); }

long liveBlocks() { return g_live.load(); }

}  // namespace alloc_faults

// --- The C allocator ----------------------------------------------------------

extern "C" {

// Kept out of line: the caller's address has to be the real caller's.
__attribute__((noinline)) void* malloc(size_t n) {
  return plainAlloc(n, fromLoader(__builtin_return_address(0)));
}

void free(void* p) { release(p); }

__attribute__((noinline)) void* calloc(size_t count, size_t size) {
  if (!ready()) {
    if (size != 0 && count > SIZE_MAX / size) return nullptr;
    return bootAlloc(count * size);
  }
  const bool loader = fromLoader(__builtin_return_address(0));
  Layer layer;
  if (!loader && layer.fails()) return nullptr;
  const LoaderBlock pause(loader);
  void* p = g_next.calloc(count, size);
  layer.made(p);
  return p;
}

__attribute__((noinline)) void* realloc(void* p, size_t n) {
  const bool loader = fromLoader(__builtin_return_address(0));
  if (p == nullptr) return plainAlloc(n, loader);
  if (fromBoot(p)) {
    // Moved out of the buffer; the old block stays there.
    void* q = plainAlloc(n, loader);
    if (q != nullptr) {
      const size_t old = bootSize(p);
      memcpy(q, p, old < n ? old : n);
    }
    return q;
  }
  Layer layer;
  // realloc(p, 0) releases p: not an allocation point.
  if (n != 0 && !loader && layer.fails()) return nullptr;  // p stays valid, as on a real failure
  const LoaderBlock pause(loader);
  void* q = g_next.realloc(p, n);
  // Grown or moved: still one block. Released by a zero size: one less.
  if (n == 0 && q == nullptr)
    layer.count(-1);
  else
    layer.count(0);
  return q;
}

void* reallocarray(void* p, size_t count, size_t size) {
  if (size != 0 && count > SIZE_MAX / size) {
    errno = ENOMEM;
    return nullptr;
  }
  return realloc(p, count * size);
}

int posix_memalign(void** out, size_t align, size_t n) { return alignedAlloc(out, align, n); }

void* aligned_alloc(size_t align, size_t n) {
  return pointOrNull(n, align, [&] { return g_next.alignedAlloc ? g_next.alignedAlloc(align, n) : nullptr; });
}

void* memalign(size_t align, size_t n) {
  return pointOrNull(n, align, [&] { return g_next.memalign ? g_next.memalign(align, n) : nullptr; });
}

void* valloc(size_t n) {
  return pointOrNull(n, 4096, [&] { return g_next.valloc ? g_next.valloc(n) : nullptr; });
}

void* pvalloc(size_t n) {
  return pointOrNull((n + 4095) & ~static_cast<size_t>(4095), 4096,
                     [&] { return g_next.pvalloc ? g_next.pvalloc(n) : nullptr; });
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg) {
  if (!ready()) return EAGAIN;  // no thread is started during the lookup
  Layer layer;
  if (layer.fails()) return EAGAIN;
  // Made inside this call, so not an allocation point of the caller's.
  Start* handed = static_cast<Start*>(malloc(sizeof(Start)));
  if (handed == nullptr) return EAGAIN;
  *handed = Start{start, arg};
  const int rc = g_next.pthreadCreate(thread, attr, startThread, handed);
  if (rc != 0) free(handed);
  return rc;
}

}  // extern "C"

// --- The C++ allocator ---------------------------------------------------------

// A throwing form: std::bad_alloc once the body has let go of its layer, so
// that the exception's own allocation is a point of the caller's.
template <class Body>
void* orThrow(Body body) {
  bool failed = false;
  void* p = body(&failed);
  if (failed) throw std::bad_alloc();
  return p;
}

void* operator new(size_t n) {
  return orThrow([&](bool* failed) { return newBody(n, 0, failed); });
}
void* operator new[](size_t n) {
  return orThrow([&](bool* failed) { return newBody(n, 1, failed); });
}
void* operator new(size_t n, std::align_val_t a) {
  return orThrow([&](bool* failed) { return newAlignedBody(n, a, 0, failed); });
}
void* operator new[](size_t n, std::align_val_t a) {
  return orThrow([&](bool* failed) { return newAlignedBody(n, a, 1, failed); });
}

void* operator new(size_t n, const std::nothrow_t&) noexcept { return newNothrowBody(n, 0); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return newNothrowBody(n, 1); }
void* operator new(size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
  return newAlignedNothrowBody(n, a, 0);
}
void* operator new[](size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
  return newAlignedNothrowBody(n, a, 1);
}

void operator delete(void* p) noexcept {
  deleteBody(p, g_next.del[0] != nullptr, [&] { g_next.del[0](p); });
}
void operator delete[](void* p) noexcept {
  deleteBody(p, g_next.del[1] != nullptr, [&] { g_next.del[1](p); });
}
void operator delete(void* p, size_t n) noexcept {
  deleteBody(p, g_next.delSized[0] != nullptr, [&] { g_next.delSized[0](p, n); });
}
void operator delete[](void* p, size_t n) noexcept {
  deleteBody(p, g_next.delSized[1] != nullptr, [&] { g_next.delSized[1](p, n); });
}
void operator delete(void* p, std::align_val_t a) noexcept {
  deleteBody(p, g_next.delAligned[0] != nullptr, [&] { g_next.delAligned[0](p, a); });
}
void operator delete[](void* p, std::align_val_t a) noexcept {
  deleteBody(p, g_next.delAligned[1] != nullptr, [&] { g_next.delAligned[1](p, a); });
}
void operator delete(void* p, size_t n, std::align_val_t a) noexcept {
  deleteBody(p, g_next.delSizedAligned[0] != nullptr, [&] { g_next.delSizedAligned[0](p, n, a); });
}
void operator delete[](void* p, size_t n, std::align_val_t a) noexcept {
  deleteBody(p, g_next.delSizedAligned[1] != nullptr, [&] { g_next.delSizedAligned[1](p, n, a); });
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  deleteBody(p, g_next.delNothrow[0] != nullptr, [&] { g_next.delNothrow[0](p, std::nothrow); });
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  deleteBody(p, g_next.delNothrow[1] != nullptr, [&] { g_next.delNothrow[1](p, std::nothrow); });
}
void operator delete(void* p, std::align_val_t a, const std::nothrow_t&) noexcept {
  deleteBody(p, g_next.delAlignedNothrow[0] != nullptr,
             [&] { g_next.delAlignedNothrow[0](p, a, std::nothrow); });
}
void operator delete[](void* p, std::align_val_t a, const std::nothrow_t&) noexcept {
  deleteBody(p, g_next.delAlignedNothrow[1] != nullptr,
             [&] { g_next.delAlignedNothrow[1](p, a, std::nothrow); });
}
