// Host names to addresses.
#pragma once

#include "platform/SocketErrors.h"

#include <ace/INET_Addr.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace VaroCommunicationAPI::Platform {

enum class AddressFamily { Any, IPv4 };

struct ResolvedHost {
  std::vector<ACE_INET_Addr> m_addresses;  ///< in the order in which they should be tried; empty on failure
  SocketError m_error;
};

/// Resolves a name or a literal address (an IPv6 address may have brackets) and a port of 1 to 65535. Calls
/// `isInterrupted` at least ten times a second and gives up with error 10004 when it returns true, although the system
/// may go on asking for a while. An empty host or a port out of range gives error 10022.
ResolvedHost ResolveHost(const std::wstring& host, std::uint32_t port, AddressFamily family,
                         const std::function<bool()>& isInterrupted);

}  // namespace VaroCommunicationAPI::Platform
