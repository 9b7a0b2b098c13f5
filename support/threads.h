// The one way the library starts a thread.
//
// Every thread the library starts goes through threads::Thread, except
// k-means' four assignment workers (colormodel/kmeans_init.cpp), which keep
// their own POSIX threads and semaphores because they are started once per
// call and woken once per pass. The README's "Threads" section lists every
// thread, when it runs and for how long.
//
// One policy when a thread cannot be had (pthread_create fails: the process
// is out of threads, or out of memory for a stack): the work runs on the
// calling thread instead. Every site is written so that this gives the same
// result, only later. startOrRun() is that policy; sites that must do
// something other than the body itself when alone (the time-limit watcher
// reads the clock on every visit instead) use start() and its result.
//
// A Thread is never left running: its destructor joins it, and every site
// joins before the call that started it returns. No exception may leave a
// thread's body (that ends the process), so the body's exception is kept and
// thrown again on the joining thread by rethrow(). Starting a thread takes no
// memory of the library's own: the body is referenced, not copied.
#ifndef SEGCORE_SUPPORT_THREADS_H
#define SEGCORE_SUPPORT_THREADS_H

#include <pthread.h>

#include <exception>

namespace threads {

class Thread {
 public:
  Thread() = default;
  ~Thread() { join(); }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Starts body() on a thread of its own and returns true; returns false,
  // with nothing started, when no thread can be had. `body` is referenced:
  // it must stay alive until join(). An exception leaving body() is kept for
  // rethrow(). A thread still running from an earlier start is joined first.
  // O(1) beyond the system's thread creation.
  template <class Body>
  bool start(Body& body) {
    join();
    error_ = nullptr;
    body_ = &body;
    call_ = &callBody<Body>;
    started_ = pthread_create(&handle_, nullptr, &Thread::runBody, this) == 0;
    return started_;
  }

  // Starts entry(arg) as the thread's whole life (for entry points whose
  // signature is fixed; entry must not let an exception out). Returns as
  // start(body) does.
  bool startEntry(void* (*entry)(void*), void* arg) {
    join();
    error_ = nullptr;
    started_ = pthread_create(&handle_, nullptr, entry, arg) == 0;
    return started_;
  }

  // Waits until the thread has ended; at once when none was started (or it
  // was joined already). Only handles pthread_create filled are joined.
  void join() {
    if (!started_) return;
    pthread_join(handle_, nullptr);
    started_ = false;
  }

  // After join(): throws what the body threw, if anything, and forgets it.
  void rethrow() {
    if (!error_) return;
    std::exception_ptr e = error_;
    error_ = nullptr;
    std::rethrow_exception(e);
  }

  // Whether a thread was started and not yet joined.
  bool running() const { return started_; }

 private:
  template <class Body>
  static void callBody(void* body) {
    (*static_cast<Body*>(body))();
  }

  static void* runBody(void* self) {
    Thread* t = static_cast<Thread*>(self);
    try {
      t->call_(t->body_);
    } catch (...) {
      t->error_ = std::current_exception();
    }
    return nullptr;
  }

  pthread_t handle_{};
  bool started_ = false;
  void* body_ = nullptr;
  void (*call_)(void*) = nullptr;
  std::exception_ptr error_;
};

// The library's policy: body() on a thread of its own when one can be had,
// else right here on the calling thread (an exception then leaves at once).
// Returns whether a thread was started; join and rethrow it afterwards.
template <class Body>
bool startOrRun(Thread& thread, Body& body) {
  if (thread.start(body)) return true;
  body();
  return false;
}

}  // namespace threads

#endif
