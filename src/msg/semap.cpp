#include "msg/semap.h"

#include <errno.h>
#include <sys/sem.h>
#include <time.h>

#include "base/result_codes.h"
#include "msg/ipc_channel.h"

namespace {

constexpr int kMode = 0600;
constexpr int kOnly = 0;  ///< number of the one semaphore in its set
constexpr uint32_t kMsPerS = 1000;
constexpr uint32_t kNsPerMs = 1'000'000;

/// What semctl(2) takes.
union SemArgument {
  int value;
  struct semid_ds* state;
};

}  // namespace

bool SemapIsOurs(int32_t semaphoreId) {
  struct semid_ds state = {};
  if (semctl(semaphoreId, kOnly, IPC_STAT, SemArgument{.state = &state}) != 0) return false;
  if (IpcIsOurs(state.sem_perm)) return true;
  errno = EPERM;
  return false;
}

uint32_t CreateSemap(int32_t key, int32_t* semaphoreId) {
  *semaphoreId = semget(key, 1, IPC_CREAT | kMode);
  if (*semaphoreId >= 0 && SemapIsOurs(*semaphoreId)) return kSuccess;
  *semaphoreId = kSemapNone;
  return kFailure;
}

uint32_t OperSemap(int32_t semaphoreId, int16_t value, uint32_t timeoutMs) {
  struct sembuf operation = {.sem_num = kOnly, .sem_op = value, .sem_flg = 0};
  struct timespec time = {.tv_sec = static_cast<time_t>(timeoutMs / kMsPerS),
                          .tv_nsec = static_cast<long>((timeoutMs % kMsPerS) * kNsPerMs)};
  const int ret =
      value < 0 ? semtimedop(semaphoreId, &operation, 1, &time) : semop(semaphoreId, &operation, 1);
  if (ret == 0) return kSuccess;
  if (value > 0 && errno == ERANGE)
    return kSuccess;  // raised as far as it goes: its reader has to wake already
  return value < 0 && (errno == EAGAIN || errno == EINTR) ? kSemapTimeout : kFailure;
}

uint32_t SetSemapVal(int32_t semaphoreId, int32_t value) {
  return semctl(semaphoreId, kOnly, SETVAL, SemArgument{.value = value}) == 0 ? kSuccess : kFailure;
}

int32_t GetSemapVal(int32_t semaphoreId) {
  return semctl(semaphoreId, kOnly, GETVAL);
}

void DrainSemap(int32_t semaphoreId) {
  (void)SetSemapVal(semaphoreId, 0);  // a semaphore that is gone has nothing to take off
}

uint32_t DeleteSemap(int32_t semaphoreId) {
  return semctl(semaphoreId, kOnly, IPC_RMID) == 0 ? kSuccess : kFailure;
}

int32_t SemapStringHash(const char* name) {
  constexpr uint32_t kOffset = 2166136261u;  // FNV-1a
  constexpr uint32_t kPrime = 16777619u;
  constexpr uint32_t kPositive = 0x7FFFFFFF;
  constexpr uint32_t kInUse = 0x10000;  // hashes below it go above: small keys are given by hand
  uint32_t hash = kOffset;
  for (; *name != '\0'; ++name) hash = (hash ^ static_cast<uint8_t>(*name)) * kPrime;
  hash &= kPositive;
  return static_cast<int32_t>(hash < kInUse ? hash + kInUse : hash);
}

uint32_t ChangeSemapOwner(int32_t semaphoreId, const char* user) {
  struct semid_ds state = {};
  if (semctl(semaphoreId, kOnly, IPC_STAT, SemArgument{.state = &state}) != 0) return kFailure;
  if (IpcUserGet(user, &state.sem_perm.uid, &state.sem_perm.gid) != 0) return kFailure;
  return semctl(semaphoreId, kOnly, IPC_SET, SemArgument{.state = &state}) == 0 ? kSuccess : kFailure;
}
