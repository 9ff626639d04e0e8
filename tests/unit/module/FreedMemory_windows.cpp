#include "FreedMemory.h"

#include <malloc.h>

namespace sorvex::test {

std::size_t AllocatedBytes(void* memory) { return _msize(memory); }

}  // namespace sorvex::test
