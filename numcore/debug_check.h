// Assertions of preconditions and invariants in hot paths: on in checked builds, nothing otherwise.
#pragma once

#ifdef VOXFILL_CHECKS
#include <cstdio>
#include <cstdlib>
#define VOXFILL_ASSERT(cond)                                                        \
  do {                                                                              \
    if (!(cond)) {                                                                  \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                                 \
    }                                                                               \
  } while (0)
#else
#define VOXFILL_ASSERT(cond) \
  do {                       \
  } while (0)
#endif
