// The text half: a text is copied whole with its terminator or not at all, and then the destination is empty.
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include "securec.h"

static errno_t EmptyAndFail(char* dest, errno_t code) {
  dest[0] = '\0';
  return code;
}

static int Overlap(const char* dest, size_t destLength, const char* src, size_t srcLength) {
  const uintptr_t to = (uintptr_t)dest;
  const uintptr_t from = (uintptr_t)src;
  return from < to ? to - from < srcLength : from - to < destLength;
}

// Puts at most `count` characters of `src` at offset `used` of `dest`.
static errno_t Append(char* dest, size_t destMax, size_t used, const char* src, size_t count) {
  const size_t room = destMax - used;
  const size_t length = strnlen(src, count < room ? count : room);
  if (length >= room) {
    return EmptyAndFail(dest, ERANGE);
  }
  if (dest + used != src && Overlap(dest, used + length + 1, src, length + (length < count ? 1 : 0))) {
    return EmptyAndFail(dest, EINVAL);
  }
  memcpy(dest + used, src, length);
  dest[used + length] = '\0';
  return EOK;
}

static errno_t CheckText(char* dest, size_t destMax, const char* src, size_t count) {
  if (destMax == 0 || destMax > SECUREC_STRING_MAX_LEN) {
    return ERANGE;
  }
  if (dest == NULL) {
    return EINVAL;
  }
  if (src == NULL) {
    return EmptyAndFail(dest, EINVAL);
  }
  return count > SECUREC_STRING_MAX_LEN ? EmptyAndFail(dest, ERANGE) : EOK;
}

errno_t strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
  const errno_t code = CheckText(dest, destMax, src, count);
  return code != EOK ? code : Append(dest, destMax, 0, src, count);
}

errno_t strcpy_s(char* dest, size_t destMax, const char* src) {
  return strncpy_s(dest, destMax, src, SECUREC_STRING_MAX_LEN);
}

errno_t strncat_s(char* dest, size_t destMax, const char* src, size_t count) {
  const errno_t code = CheckText(dest, destMax, src, count);
  if (code != EOK) {
    return code;
  }
  const size_t used = strnlen(dest, destMax);
  return used == destMax ? EmptyAndFail(dest, EINVAL) : Append(dest, destMax, used, src, count);
}

errno_t strcat_s(char* dest, size_t destMax, const char* src) {
  return strncat_s(dest, destMax, src, SECUREC_STRING_MAX_LEN);
}
