// A system's resolver, for `ResolveHost`.
#pragma once

#include "platform/NameResolver.h"

namespace VaroCommunicationAPI::Platform {

/// Like `ResolveHost`, for a host without brackets and a port in range. May return no address without an error.
ResolvedHost LookUpName(const std::wstring& host, std::uint32_t port, AddressFamily family,
                        const std::function<bool()>& isInterrupted);

/// The addresses of the list that starts with `entry`, of the system's own type.
template <class Entry>
std::vector<ACE_INET_Addr> AddressesOf(const Entry* entry) {
  std::vector<ACE_INET_Addr> addresses;
  // Some headers declare the next one with their own type.
  for (; entry != nullptr; entry = reinterpret_cast<const Entry*>(entry->ai_next)) {
    ACE_INET_Addr address;
    if (address.set(reinterpret_cast<const sockaddr_in*>(entry->ai_addr), static_cast<int>(entry->ai_addrlen)) == 0) {
      addresses.push_back(address);
    }
  }
  return addresses;
}

}  // namespace VaroCommunicationAPI::Platform
