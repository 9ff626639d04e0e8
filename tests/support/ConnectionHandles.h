// The handles of this process that are connected to a loopback port.
#pragma once

#include <ace/Basic_Types.h>
#include <ace/OS_NS_sys_socket.h>
#include <ace/os_include/netinet/os_in.h>

#include <cstdint>
#include <type_traits>
#include <vector>

namespace sorvex::test {

/// A handle of the system's kind.
template <class Handle = ACE_HANDLE>
Handle ToHandle(std::intptr_t number) {
  if constexpr (std::is_pointer_v<Handle>) {
    return reinterpret_cast<Handle>(number);
  } else {
    return static_cast<Handle>(number);
  }
}

/// The handles of this process, among those with low numbers, for which `isMeant` returns true.
template <class IsMeant>
std::vector<ACE_HANDLE> HandlesThat(IsMeant isMeant) {
  // Where handles are pointers, they are multiples of four.
  constexpr std::intptr_t step = std::is_pointer_v<ACE_HANDLE> ? 4 : 1;
  std::vector<ACE_HANDLE> handles;
  for (std::intptr_t number = 0; number < 1024 * step; number += step) {
    if (const ACE_HANDLE handle = ToHandle(number); isMeant(handle)) handles.push_back(handle);
  }
  return handles;
}

/// The IPv4 sockets that the process has connected to `port`, wherever it keeps them.
inline std::vector<ACE_HANDLE> HandlesConnectedTo(std::uint16_t port) {
  return HandlesThat([port](ACE_HANDLE handle) {
    sockaddr_in peer{};
    int size = sizeof peer;
    return ACE_OS::getpeername(handle, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
           peer.sin_port == ACE_NTOHS(port);
  });
}

/// The open IPv4 sockets of the process, including those that the peer has reset.
inline std::vector<ACE_HANDLE> InternetHandles() {
  return HandlesThat([](ACE_HANDLE handle) {
    sockaddr_in own{};
    int size = sizeof own;
    return ACE_OS::getsockname(handle, reinterpret_cast<sockaddr*>(&own), &size) == 0 && own.sin_family == AF_INET;
  });
}

}  // namespace sorvex::test
