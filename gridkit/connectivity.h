// Checks and index tools on connectivity tables (one element per column).
#pragma once

#include "gridkit/element_type.h"
#include "numcore/dense2D.h"

namespace kelvo::gridkit {

// True when `connect` is empty, or when its row count fits `type` and every value is below `nods`.
bool check_IDs(const dense2D<unsigned>& connect, element_type type, unsigned nods) noexcept;

// `out` receives each node index of `connect` once, in increasing order. `work` is scratch.
// Returns 0, or -199 when memory ran out (then `out` is empty).
int unique_indices(dense1D<unsigned>& out, const dense2D<unsigned>& connect,
                   dense1D<unsigned> work);

// `order`: the indices 0 .. n-1 sorted by value (stable); `starts`: where each run of equal values
// begins in `order`, closed by n. Returns 0, or -199 when memory ran out.
int get_sorted_order(const dense1D<unsigned>& values, dense1D<unsigned>& order,
                     dense1D<unsigned>& starts);

// Each entry e of `connect` (of `list`) becomes map[e]. Entries not below the size of `map` stay
// as they are, so that a map over the input nodes leaves the nodes made later alone.
void change_indices(dense2D<unsigned>& connect, const dense1D<unsigned>& map) noexcept;
void change_indices(dense1D<unsigned>& list, const dense1D<unsigned>& map) noexcept;

// Moves each value with its index: the value at index i goes to index map[i], for i below the
// sizes of both. An empty `values` stays empty. Returns 0, or -199 when memory ran out (then
// `values` is as it was).
int permutation(dense1D<unsigned>& values, const dense1D<unsigned>& map) noexcept;
int permutation(dense1D<double>& values, const dense1D<unsigned>& map) noexcept;

}  // namespace kelvo::gridkit
