#include "KeepAlive.h"

#include <gtest/gtest.h>

#include <winsock2.h>

namespace sorvex::test {
namespace {

// Options of newer systems than the headers know; older ones report no times. In seconds.
constexpr int idleOption = 3;
constexpr int intervalOption = 17;

std::optional<std::uint32_t> Read(ACE_HANDLE handle, int level, int option) {
  DWORD value = 0;
  int size = sizeof value;
  const auto socket = reinterpret_cast<SOCKET>(handle);
  if (getsockopt(socket, level, option, reinterpret_cast<char*>(&value), &size) == SOCKET_ERROR) return {};
  return value;
}

}  // namespace

KeepAlive ReadKeepAlive(ACE_HANDLE handle) {
  const std::optional<std::uint32_t> enabled = Read(handle, SOL_SOCKET, SO_KEEPALIVE);
  EXPECT_TRUE(enabled);
  KeepAlive keepAlive{enabled.value_or(0) != 0, {}, {}};
  if (const auto idle = Read(handle, IPPROTO_TCP, idleOption)) keepAlive.timeMs = *idle * 1000;
  if (const auto interval = Read(handle, IPPROTO_TCP, intervalOption)) keepAlive.intervalMs = *interval * 1000;
  return keepAlive;
}

}  // namespace sorvex::test
