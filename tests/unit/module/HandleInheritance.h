// Whether child processes inherit a handle.
#pragma once

#include <ace/Basic_Types.h>
#include <ace/os_include/os_stddef.h>

namespace sorvex::test {

bool IsInherited(ACE_HANDLE handle);

}  // namespace sorvex::test
