#include "shared/threads.h"

#include <pthread.h>
#include <signal.h>

namespace palvin {

// A new thread inherits its creator's mask, so the creator blocks everything
// for the moment of the start; a signal arriving then waits, pending, for a
// thread that takes it.
std::thread startQuietThread(std::function<void()> body) {
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  try {
    std::thread thread(std::move(body));
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return thread;
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    throw;
  }
}

}  // namespace palvin
