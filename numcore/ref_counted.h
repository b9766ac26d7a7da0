// Intrusive, atomically counted base of every shared object, and its smart pointer.
#pragma once

#include <atomic>

namespace kelvo::numcore {

// Base of the shared numeric buffers. The count starts at 0; the last Ptr to let go deletes.
class ref_counted {
 public:
  ref_counted() noexcept = default;
  ref_counted(const ref_counted&) noexcept {}
  ref_counted& operator=(const ref_counted&) noexcept { return *this; }
  virtual ~ref_counted() = default;

  void incr_ref() const noexcept { ref_count.fetch_add(1, std::memory_order_relaxed); }
  // Drops one reference and deletes the object when it was the last one.
  void decr_ref() const noexcept {
    if (ref_count.fetch_sub(1, std::memory_order_acq_rel) == 1) const_cast<ref_counted*>(this)->__destroy();
  }
  unsigned use_count() const noexcept { return ref_count.load(std::memory_order_relaxed); }

  mutable std::atomic<unsigned> ref_count{0};

 private:
  void __destroy() noexcept { delete this; }
};

}  // namespace kelvo::numcore

namespace kelvo {

// Same contract as numcore::ref_counted; the engine's progress bars and task managers derive from it.
class ref_counted {
 public:
  ref_counted() noexcept = default;
  ref_counted(const ref_counted&) noexcept {}
  ref_counted& operator=(const ref_counted&) noexcept { return *this; }
  virtual ~ref_counted() = default;

  void incr_ref() const noexcept { ref_count.fetch_add(1, std::memory_order_relaxed); }
  void decr_ref() const noexcept {
    if (ref_count.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  unsigned use_count() const noexcept { return ref_count.load(std::memory_order_relaxed); }

  mutable std::atomic<unsigned> ref_count{0};
};

// Intrusive smart pointer over either ref_counted base. Holds one raw pointer.
template <class T>
class Ptr {
 public:
  Ptr() noexcept = default;
  Ptr(T* p) noexcept : ptr(p) {  // NOLINT: implicit by design, as a raw pointer converts
    if (ptr) ptr->incr_ref();
  }
  Ptr(const Ptr& o) noexcept : ptr(o.ptr) {
    if (ptr) ptr->incr_ref();
  }
  Ptr(Ptr&& o) noexcept : ptr(o.ptr) { o.ptr = nullptr; }
  ~Ptr() {
    if (ptr) ptr->decr_ref();
  }
  Ptr& operator=(const Ptr& o) noexcept { return *this = o.ptr; }
  Ptr& operator=(Ptr&& o) noexcept {
    if (this != &o) {
      T* old = ptr;
      ptr = o.ptr;
      o.ptr = nullptr;
      if (old) old->decr_ref();
    }
    return *this;
  }
  // Takes a raw pointer: the count of the new object rises before the old one falls, so that
  // assigning the pointer already held is harmless.
  Ptr& operator=(T* p) noexcept {
    if (p != ptr) {
      if (p) p->incr_ref();
      T* old = ptr;
      ptr = p;
      if (old) old->decr_ref();
    }
    return *this;
  }

  T* get() const noexcept { return ptr; }
  T* operator->() const noexcept { return ptr; }
  T& operator*() const noexcept { return *ptr; }
  explicit operator bool() const noexcept { return ptr != nullptr; }
  bool operator==(const Ptr& o) const noexcept { return ptr == o.ptr; }

  T* ptr = nullptr;
};

}  // namespace kelvo

namespace kelvo::numcore {
using kelvo::Ptr;
}
