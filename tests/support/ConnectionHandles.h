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

/// The sockets, over IPv4, that the process has connected to `port`, however it keeps them.
inline std::vector<ACE_HANDLE> HandlesConnectedTo(std::uint16_t port) {
  // Where handles are pointers, they are multiples of four.
  constexpr std::intptr_t step = std::is_pointer_v<ACE_HANDLE> ? 4 : 1;
  std::vector<ACE_HANDLE> handles;
  for (std::intptr_t number = 0; number < 1024 * step; number += step) {
    const ACE_HANDLE handle = ToHandle(number);
    sockaddr_in peer{};
    int size = sizeof peer;
    if (ACE_OS::getpeername(handle, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
        peer.sin_port == ACE_NTOHS(port)) {
      handles.push_back(handle);
    }
  }
  return handles;
}

}  // namespace sorvex::test
