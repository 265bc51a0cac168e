/// TOLA_CHECK states an invariant of our own code. A broken one ends the process with its place on standard
/// error, in every build: going on would work with state that nobody has thought about.
///
/// Never for what comes from a message, a file, a user or the runtime: that is checked and refused.
#pragma once

#include <stdio.h>
#include <stdlib.h>

#define TOLA_CHECK(condition)                                                                 \
  do {                                                                                        \
    if (!(condition)) {                                                                       \
      (void)fprintf(stderr, "%s:%d: broken invariant: %s\n", __FILE__, __LINE__, #condition); \
      abort();                                                                                \
    }                                                                                         \
  } while (0)
