// The memory half: the sizes are judged before the first byte is written. A destination size of 0 or above
// the limit is not trusted, so then nothing is touched at all.
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include "securec.h"

static int IsBadMax(size_t destMax) {
  return destMax == 0 || destMax > SECUREC_MEM_MAX_LEN;
}

static int Overlap(const void* dest, const void* src, size_t count) {
  const uintptr_t to = (uintptr_t)dest;
  const uintptr_t from = (uintptr_t)src;
  return (from < to && to - from < count) || (to < from && from - to < count);
}

static errno_t ZeroAndFail(void* dest, size_t destMax, errno_t code) {
  memset(dest, 0, destMax);
  return code;
}

errno_t memmove_s(void* dest, size_t destMax, const void* src, size_t count) {
  if (IsBadMax(destMax)) {
    return ERANGE;
  }
  if (dest == NULL) {
    return EINVAL;
  }
  if (src == NULL) {
    return ZeroAndFail(dest, destMax, EINVAL);
  }
  if (count > destMax) {
    return ZeroAndFail(dest, destMax, ERANGE);
  }
  memmove(dest, src, count);
  return EOK;
}

errno_t memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
  if (!IsBadMax(destMax) && dest != NULL && src != NULL && count <= destMax && Overlap(dest, src, count)) {
    return ZeroAndFail(dest, destMax, EINVAL);
  }
  return memmove_s(dest, destMax, src, count);
}

errno_t memset_s(void* dest, size_t destMax, int c, size_t count) {
  if (IsBadMax(destMax)) {
    return ERANGE;
  }
  if (dest == NULL) {
    return EINVAL;
  }
  // Used to wipe secrets: volatile keeps the compiler from dropping stores that nobody reads.
  void* (*volatile fill)(void*, int, size_t) = memset;
  fill(dest, c, count > destMax ? destMax : count);
  return count > destMax ? ERANGE : EOK;
}
