// The reference-counted numeric buffer under every array view.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "numcore/ref_counted.h"

// Raw memory of the buffers: returns null instead of throwing when memory runs out.
void* __vector_num_alloc(std::size_t bytes) noexcept;
void __vector_num_free(void* p) noexcept;

namespace kelvo::numcore {

template <class T, unsigned A = 8>
class vector_num : public ref_counted {
  static_assert(std::is_trivially_copyable_v<T>, "buffers hold plain numbers and records");

 public:
  static constexpr std::uint16_t foreign_block = 65535;

  vector_num() noexcept = default;
  vector_num(const vector_num&) = delete;
  vector_num& operator=(const vector_num&) = delete;
  ~vector_num() override {
    if (data && shift != foreign_block) __vector_num_free(reinterpret_cast<char*>(data) - shift);
    data = nullptr;
    capacity = 0;
    shift = 0;
  }

  T* data = nullptr;
  unsigned capacity = 0;
  std::uint16_t shift = 0;

  // Replaces the block by one of at least `required` elements, keeping the first `used`.
  // Returns false and changes nothing when the size overflows or memory runs out.
  bool __grow(unsigned required, unsigned used, unsigned factor) noexcept {
    const std::uint64_t s = sizeof(T);
    if (factor == 0) factor = 1;
    if (capacity > 0xFFFFFFFFu / factor) return false;
    std::uint64_t cap = std::uint64_t(capacity) * factor;
    if (cap < 2) cap = 2;
    if (cap < required) cap = required;
    if (cap * s > 0xFFFFFFFFull) return false;
    const std::size_t bytes = std::size_t(cap * s + s - 1);
    char* block = static_cast<char*>(__vector_num_alloc(bytes));
    if (!block) return false;
    const std::uintptr_t addr = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t aligned = (addr + s - 1) / s * s;
    T* fresh = reinterpret_cast<T*>(aligned);
    const unsigned fits = unsigned((bytes - (aligned - addr)) / s);
    if (used > capacity) used = capacity;
    if (used && data) std::memcpy(static_cast<void*>(fresh), data, std::size_t(used) * sizeof(T));
    if (data && shift != foreign_block) __vector_num_free(reinterpret_cast<char*>(data) - shift);
    data = fresh;
    shift = std::uint16_t(aligned - addr);
    capacity = fits;
    return true;
  }
};

}  // namespace kelvo::numcore
