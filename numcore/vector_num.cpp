// Raw allocation of the numeric buffers, without exceptions.
#include "numcore/vector_num.h"

#include <new>

// The nothrow form lets a program (a test, say) replace the allocator and make it fail on demand.
void* __vector_num_alloc(std::size_t bytes) noexcept { return ::operator new(bytes, std::nothrow); }

void __vector_num_free(void* p) noexcept { ::operator delete(p); }
