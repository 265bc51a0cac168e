#include "velto/shared_lock.h"

#include <errno.h>
#include <poll.h>

#include "base/check.h"

namespace velto {
namespace {

SharedLock::Taken Outcome(int result, pthread_mutex_t& mutex) {
  if (result == EOWNERDEAD)
    return pthread_mutex_consistent(&mutex) == 0 ? SharedLock::Taken::kAfterDeath : SharedLock::Taken::kNo;
  return result == 0 ? SharedLock::Taken::kYes : SharedLock::Taken::kNo;
}

}  // namespace

bool SharedLock::Init() {
  pthread_mutexattr_t attributes;
  if (pthread_mutexattr_init(&attributes) != 0) return false;
  const bool made = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0 &&
                    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0 &&
                    pthread_mutex_init(&mutex_, &attributes) == 0;
  (void)pthread_mutexattr_destroy(&attributes);
  return made;
}

SharedLock::Taken SharedLock::Take() {
  return Outcome(pthread_mutex_lock(&mutex_), mutex_);
}

SharedLock::Taken SharedLock::TakeWithin(uint32_t milliseconds) {
  int result = pthread_mutex_trylock(&mutex_);
  for (; result == EBUSY && milliseconds > 0; --milliseconds) {
    (void)poll(nullptr, 0, 1);  // the holder may be a stopped process: no matter for the runtime's clock
    result = pthread_mutex_trylock(&mutex_);
  }
  return Outcome(result, mutex_);
}

void SharedLock::Release() {
  TOLA_CHECK(pthread_mutex_unlock(&mutex_) == 0);
}

}  // namespace velto
