/// What the result codes of an update mean, for people.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct UpdateResult {
  uint16_t code;
  const char* name;     ///< one word for scripts, such as "busy"
  const char* meaning;  ///< one sentence without its full stop
};

/// The entry of `code`, or null when no part of the system gives it.
const UpdateResult* FindUpdateResult(uint16_t code);

/// Meaning of a result as a requester sees it; never null, "unknown result" for a code of nobody's.
const char* UpdateResultText(uint16_t code);
