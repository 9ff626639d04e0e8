#include "platform/NameResolver.h"

#include "platform/NameLookup.h"

#include <utility>

namespace VaroCommunicationAPI::Platform {

ResolvedHost ResolveHost(const std::wstring& host, std::uint32_t port, AddressFamily family,
                         const std::function<bool()>& isInterrupted) {
  std::wstring name = host;
  if (name.size() > 2 && name.front() == L'[' && name.back() == L']') name = name.substr(1, name.size() - 2);
  if (name.empty() || name.find(L'\0') != std::wstring::npos || port == 0 || port > 65535) {
    return {{}, ErrorInvalidArgument};
  }
  ResolvedHost resolved = LookUpName(name, port, family, isInterrupted);
  if (!resolved.m_error && resolved.m_addresses.empty()) resolved.m_error = ErrorHostNotFound;
  return resolved;
}

}  // namespace VaroCommunicationAPI::Platform
