// Loading a shared library by a path of any characters.
#pragma once

#include <ace/os_include/os_dlfcn.h>

#include <filesystem>
#include <string>

namespace WindowsAgentCommon {

/// Loads the library with all its dependencies. Returns the system's handle, to be closed with `ACE_OS::dlclose`, or
/// `ACE_SHLIB_INVALID_HANDLE` with the system's reason in `error`.
ACE_SHLIB_HANDLE OpenSharedLibrary(const std::filesystem::path& file, std::string& error);

}  // namespace WindowsAgentCommon
