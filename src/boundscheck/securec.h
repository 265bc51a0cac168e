/// Bounds-checked memory and text functions, with the prototypes and results of libboundscheck.
///
/// Used only when that library is not installed (cmake/FindBoundscheck.cmake). Every function checks before
/// it writes; a refused call leaves no half result: memory destinations are zeroed, text destinations
/// emptied.
#pragma once

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int errno_t;

#ifndef EOK
#define EOK 0
#endif

/// Largest destination size that is accepted; a larger one is taken for a negative number gone astray.
#define SECUREC_MEM_MAX_LEN 0x7FFFFFFFUL
#define SECUREC_STRING_MAX_LEN 0x7FFFFFFFUL

/// 0, or a non-zero code. `count` above `destMax`, overlap or a null source zero all of `dest`; `destMax` 0
/// fails even for `count` 0; a null `dest` touches nothing. A copy onto itself is no overlap here or below.
errno_t memcpy_s(void* dest, size_t destMax, const void* src, size_t count);
errno_t memmove_s(void* dest, size_t destMax, const void* src, size_t count);  ///< overlap is allowed
errno_t memset_s(void* dest, size_t destMax, int c,
                 size_t count);  ///< too long a count fills `destMax` bytes and fails

/// 0, or a non-zero code with `dest` emptied: no text is ever cut silently.
errno_t strcpy_s(char* dest, size_t destMax, const char* src);
errno_t strncpy_s(char* dest, size_t destMax, const char* src,
                  size_t count);  ///< at most `count` characters of `src`
errno_t strcat_s(char* dest, size_t destMax, const char* src);
errno_t strncat_s(char* dest, size_t destMax, const char* src, size_t count);

/// Number of characters written without the terminator, or -1. A text that does not fit `destMax` gives -1
/// and empties `dest`; one that `count` cuts gives -1 and keeps the cut text.
int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list args)
    __attribute__((format(printf, 4, 0)));
int sprintf_s(char* dest, size_t destMax, const char* format, ...) __attribute__((format(printf, 3, 4)));
int vsprintf_s(char* dest, size_t destMax, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

/// Number of values read, or -1. Each of %s, %c and %[ is followed in the arguments by its size as unsigned
/// int. The drop-in reads numeric conversions only and answers -1 to a format that holds another.
int sscanf_s(const char* buffer, const char* format, ...);

#ifdef __cplusplus
}
#endif
