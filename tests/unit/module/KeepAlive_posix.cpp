#include "KeepAlive.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace sorvex::test {
namespace {

std::uint32_t Read(ACE_HANDLE handle, int level, int option) {
  std::uint32_t value = 0;
  socklen_t size = sizeof value;
  EXPECT_EQ(getsockopt(handle, level, option, &value, &size), 0);
  return value;
}

}  // namespace

KeepAlive ReadKeepAlive(ACE_HANDLE handle) {
  return {Read(handle, SOL_SOCKET, SO_KEEPALIVE) != 0, Read(handle, IPPROTO_TCP, TCP_KEEPIDLE) * 1000,
          Read(handle, IPPROTO_TCP, TCP_KEEPINTVL) * 1000};
}

}  // namespace sorvex::test
