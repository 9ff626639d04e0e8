#include "HandleInheritance.h"

#include <fcntl.h>

namespace sorvex::test {

bool IsInherited(ACE_HANDLE handle) { return (fcntl(handle, F_GETFD) & FD_CLOEXEC) == 0; }

}  // namespace sorvex::test
