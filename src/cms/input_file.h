/// Files that the engine reads: regular files only, so that no pipe or device can hold the task.
#pragma once

#include <stdint.h>

#include <vector>

#include "base/owners.h"

namespace cms {

/// Opens `path` and tells its size.
/// @retval 0 @retval kSigvfyErrArgument empty path @retval kSigvfyErrOpen @retval kSigvfyErrEmpty
/// @retval kSigvfyErrFileSize no size, or no regular file
[[nodiscard]] uint32_t OpenInput(const char* path, base::UniqueFd& fd, uint64_t& size);

/// Up to `room` bytes from `fd`; `length` 0 is the end of the file. @retval 0 @retval kSigvfyErrRead
[[nodiscard]] uint32_t ReadPiece(int fd, uint8_t* to, size_t room, size_t& length);

/// The whole file. May throw std::bad_alloc.
/// @retval 0 @retval kSigvfyErrTooLong more than kSigvfyMaxBuffer bytes @retval other as above
[[nodiscard]] uint32_t ReadInput(const char* path, std::vector<uint8_t>& bytes);

}  // namespace cms
