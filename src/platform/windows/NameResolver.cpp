#include "platform/NameResolver.h"

#include <winsock2.h>

#include <windows.h>
#include <ws2tcpip.h>

#include <memory>

// Not every compiler's headers declare these two, though its import library has them.
extern "C" {
WINSOCK_API_LINKAGE INT WSAAPI GetAddrInfoExCancel(LPHANDLE lpHandle);
WINSOCK_API_LINKAGE INT WSAAPI GetAddrInfoExOverlappedResult(LPOVERLAPPED lpOverlapped);
}

namespace VaroCommunicationAPI::Platform {

namespace {

constexpr DWORD waitSliceMs = 50;

/// One question to the resolver and what it needs to stay alive for while it is asked.
struct Question {
  std::wstring m_strHost;
  std::wstring m_strService;
  ADDRINFOEXW m_hints{};
  OVERLAPPED m_overlapped{};
  ADDRINFOEXW* m_pResult = nullptr;

  Question(std::wstring host, std::uint32_t port, AddressFamily family)
      : m_strHost(std::move(host)), m_strService(std::to_wstring(port)) {
    m_hints.ai_family = family == AddressFamily::IPv4 ? AF_INET : AF_UNSPEC;
    m_hints.ai_socktype = SOCK_STREAM;  // one entry an address; the addresses serve datagrams as well
    m_overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  }
  ~Question() {
    if (m_pResult) FreeAddrInfoExW(m_pResult);
    if (m_overlapped.hEvent) CloseHandle(m_overlapped.hEvent);
  }
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;
};

/// Returns 0 or the system's error number; WSAEINTR when interrupted.
int Ask(std::unique_ptr<Question>& question, const std::function<bool()>& isInterrupted) {
  if (!question->m_overlapped.hEvent) return static_cast<int>(GetLastError());
  HANDLE cancel = nullptr;
  const int code =
      GetAddrInfoExW(question->m_strHost.c_str(), question->m_strService.c_str(), NS_ALL, nullptr, &question->m_hints,
                     &question->m_pResult, nullptr, &question->m_overlapped, nullptr, &cancel);
  if (code != WSA_IO_PENDING) return code;
  while (WaitForSingleObject(question->m_overlapped.hEvent, waitSliceMs) == WAIT_TIMEOUT) {
    if (!isInterrupted()) continue;
    GetAddrInfoExCancel(&cancel);
    // A question that does not let itself be taken back keeps what it points at, for good.
    if (WaitForSingleObject(question->m_overlapped.hEvent, waitSliceMs) == WAIT_TIMEOUT) {
      static_cast<void>(question.release());
    }
    return WSAEINTR;
  }
  return GetAddrInfoExOverlappedResult(&question->m_overlapped);
}

}  // namespace

ResolvedHost ResolveHost(const std::wstring& host, std::uint32_t port, AddressFamily family,
                         const std::function<bool()>& isInterrupted) {
  ResolvedHost resolved;
  std::wstring name = host;
  if (name.size() > 2 && name.front() == L'[' && name.back() == L']') name = name.substr(1, name.size() - 2);
  if (name.empty() || name.find(L'\0') != std::wstring::npos || port == 0 || port > 65535) {
    resolved.m_error = ErrorInvalidArgument;
    return resolved;
  }
  auto question = std::make_unique<Question>(std::move(name), port, family);
  if (const int code = Ask(question, isInterrupted); code != 0) {
    // A name without an address of the family is as good as none. Some systems give a number that is none of theirs.
    resolved.m_error = code == WSANO_DATA || code < 0 ? ErrorHostNotFound : ToCallerError(code);
    return resolved;
  }
  for (const ADDRINFOEXW* entry = question->m_pResult; entry;
       // Some headers declare this member with a type of its own.
       entry = reinterpret_cast<const ADDRINFOEXW*>(entry->ai_next)) {
    ACE_INET_Addr address;
    if (address.set(reinterpret_cast<const sockaddr_in*>(entry->ai_addr), static_cast<int>(entry->ai_addrlen)) == 0) {
      resolved.m_addresses.push_back(address);
    }
  }
  if (resolved.m_addresses.empty()) resolved.m_error = ErrorHostNotFound;
  return resolved;
}

}  // namespace VaroCommunicationAPI::Platform
