#include "platform/NameLookup.h"

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

/// One request to the resolver and what must stay alive while it runs.
struct Question {
  std::wstring m_strHost;
  std::wstring m_strService;
  ADDRINFOEXW m_hints{};
  OVERLAPPED m_overlapped{};
  ADDRINFOEXW* m_pResult = nullptr;

  Question(std::wstring host, std::uint32_t port, AddressFamily family)
      : m_strHost(std::move(host)), m_strService(std::to_wstring(port)) {
    m_hints.ai_family = family == AddressFamily::IPv4 ? AF_INET : AF_UNSPEC;
    m_hints.ai_socktype = SOCK_STREAM;  // one entry per address; the addresses serve datagrams as well
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
    // A request that cannot be cancelled keeps what it points at for good.
    if (WaitForSingleObject(question->m_overlapped.hEvent, waitSliceMs) == WAIT_TIMEOUT) {
      static_cast<void>(question.release());
    }
    return WSAEINTR;
  }
  return GetAddrInfoExOverlappedResult(&question->m_overlapped);
}

}  // namespace

ResolvedHost LookUpName(const std::wstring& host, std::uint32_t port, AddressFamily family,
                        const std::function<bool()>& isInterrupted) {
  auto question = std::make_unique<Question>(host, port, family);
  if (const int code = Ask(question, isInterrupted); code != 0) {
    // A name without an address of the family counts as unknown. Some systems return a number that is not one of
    // theirs.
    return {{}, code == WSANO_DATA || code < 0 ? ErrorHostNotFound : ToCallerError(code)};
  }
  return {AddressesOf(question->m_pResult), ErrorNone};
}

}  // namespace VaroCommunicationAPI::Platform
