#include "FreedMemory.h"

#include <malloc.h>

namespace sorvex::test {

std::size_t AllocatedBytes(void* memory) { return malloc_usable_size(memory); }

}  // namespace sorvex::test
