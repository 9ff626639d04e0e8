// The TCP keep-alive settings of a connection, as the system reports them.
#pragma once

#include <ace/Basic_Types.h>
#include <ace/os_include/os_stddef.h>

#include <cstdint>
#include <optional>

namespace sorvex::test {

struct KeepAlive {
  bool isEnabled = false;
  // A system need not report the times.
  std::optional<std::uint32_t> timeMs;
  std::optional<std::uint32_t> intervalMs;
};

/// The test fails if the handle has no such settings.
KeepAlive ReadKeepAlive(ACE_HANDLE handle);

}  // namespace sorvex::test
