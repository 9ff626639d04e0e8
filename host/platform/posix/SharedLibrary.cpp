#include "platform/SharedLibrary.h"

#include <dlfcn.h>

namespace WindowsAgentCommon {

ACE_SHLIB_HANDLE OpenSharedLibrary(const std::filesystem::path& file, std::string& error) {
  // All symbols at once: a library that lacks one is refused here instead of ending the process later.
  ACE_SHLIB_HANDLE handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* reason = ::dlerror();
    error = reason ? reason : "unknown error";
  }
  return handle;
}

}  // namespace WindowsAgentCommon
