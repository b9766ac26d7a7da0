// Which vector instructions the lane forms of the geometry may use, decided once per process.
// Every lane form gives the bits of the scalar code, so the choice changes speed alone. Setting
// VOXFILL_VECTOR_LANES=off in the environment keeps to the scalar code on any processor, which
// is how that code is checked on machines that would never take it.
#pragma once

namespace kelvo::voxfill {

bool lanes_sse2() noexcept;  // two lanes, which every x86-64 processor runs, unless turned off
bool lanes_avx() noexcept;   // the processor runs AVX and the lanes are not turned off
bool lanes_avx2() noexcept;  // the same for AVX2

}  // namespace kelvo::voxfill
