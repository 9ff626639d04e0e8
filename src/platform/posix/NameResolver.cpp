#include "platform/NameLookup.h"

#include <host/Text.h>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <csignal>
#include <ctime>
#include <memory>

namespace VaroCommunicationAPI::Platform {

namespace {

/// One request to the resolver and what must stay alive while it runs.
struct Question {
  std::string m_strHost;
  std::string m_strService;
  addrinfo m_hints{};
  gaicb m_request{};

  Question(std::string host, std::uint32_t port, AddressFamily family)
      : m_strHost(std::move(host)), m_strService(std::to_string(port)) {
    m_hints.ai_family = family == AddressFamily::IPv4 ? AF_INET : AF_UNSPEC;
    m_hints.ai_socktype = SOCK_STREAM;  // one entry per address; the addresses serve datagrams as well
    m_hints.ai_flags = AI_NUMERICSERV;
    m_request.ar_name = m_strHost.c_str();
    m_request.ar_service = m_strService.c_str();
    m_request.ar_request = &m_hints;
  }
  ~Question() {
    if (m_request.ar_result) freeaddrinfo(m_request.ar_result);
  }
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;

  int AskNow() { return getaddrinfo(m_request.ar_name, m_request.ar_service, &m_hints, &m_request.ar_result); }
};

#if defined(__SANITIZE_THREAD__)
// The thread sanitizer's run time does not survive threads that the C library starts itself.
int Ask(std::unique_ptr<Question>& question, const std::function<bool()>&) { return question->AskNow(); }
#else
/// Returns the resolver's code; EAI_CANCELED when interrupted.
int Ask(std::unique_ptr<Question>& question, const std::function<bool()>& isInterrupted) {
  gaicb* list[] = {&question->m_request};
  sigevent noEvent{};
  noEvent.sigev_notify = SIGEV_NONE;
  if (const int code = getaddrinfo_a(GAI_NOWAIT, list, 1, &noEvent); code != 0) return code;
  const timespec slice{0, 50'000'000};
  int code = 0;
  while ((code = gai_error(list[0])) == EAI_INPROGRESS) {
    if (isInterrupted()) {
      // A request that is running cannot be cancelled; what it points at is then kept for good.
      if (gai_cancel(list[0]) == EAI_NOTCANCELED) static_cast<void>(question.release());
      return EAI_CANCELED;
    }
    gai_suspend(list, 1, &slice);
  }
  return code;
}
#endif

SocketError ToSocketError(int resolverCode) {
  switch (resolverCode) {
    case EAI_CANCELED: return ErrorInterrupted;
    case EAI_AGAIN:
    case EAI_MEMORY:
    // The system's own number stays in the thread in which the resolver asked.
    case EAI_SYSTEM: return ErrorHostTryAgain;
    case EAI_FAIL: return ErrorHostNoRecovery;
    default: return ErrorHostNotFound;
  }
}

}  // namespace

ResolvedHost LookUpName(const std::wstring& host, std::uint32_t port, AddressFamily family,
                        const std::function<bool()>& isInterrupted) {
  auto question = std::make_unique<Question>(WindowsAgentCommon::WideToUtf8(host), port, family);
  // A literal address needs no resolver.
  question->m_hints.ai_flags |= AI_NUMERICHOST;
  int code = question->AskNow();
  if (code == EAI_NONAME) {
    question->m_hints.ai_flags &= ~AI_NUMERICHOST;
    code = Ask(question, isInterrupted);
  }
  if (code != 0) return {{}, ToSocketError(code)};
  return {AddressesOf(question->m_request.ar_result), ErrorNone};
}

}  // namespace VaroCommunicationAPI::Platform
