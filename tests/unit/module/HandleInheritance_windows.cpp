#include "HandleInheritance.h"

#include <windows.h>

namespace sorvex::test {

bool IsInherited(ACE_HANDLE handle) {
  DWORD flags = HANDLE_FLAG_INHERIT;
  GetHandleInformation(handle, &flags);
  return (flags & HANDLE_FLAG_INHERIT) != 0;
}

}  // namespace sorvex::test
