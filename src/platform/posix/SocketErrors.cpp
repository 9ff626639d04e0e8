#include "platform/SocketErrors.h"

#include <host/SystemError.h>

#include <netdb.h>

#include <cerrno>

namespace VaroCommunicationAPI::Platform {

namespace {

struct ErrorPair {
  int system;
  SocketError caller;
};

// Where two system numbers share a caller's number, converting back gives the first.
constexpr ErrorPair errorPairs[] = {
    {ETIME, ErrorWaitTimeout},
    {EINTR, ErrorInterrupted},
    {EBADF, SocketError(10009)},
    {EACCES, SocketError(10013)},
    {EFAULT, SocketError(10014)},
    {EINVAL, ErrorInvalidArgument},
    {EMFILE, SocketError(10024)},
    {EWOULDBLOCK, ErrorWouldBlock},
    {EINPROGRESS, SocketError(10036)},
    {EALREADY, SocketError(10037)},
    {ENOTSOCK, SocketError(10038)},
    {EDESTADDRREQ, SocketError(10039)},
    {EMSGSIZE, ErrorMessageTooLong},
    {EPROTOTYPE, SocketError(10041)},
    {ENOPROTOOPT, SocketError(10042)},
    {EPROTONOSUPPORT, SocketError(10043)},
    {ESOCKTNOSUPPORT, SocketError(10044)},
    {EOPNOTSUPP, SocketError(10045)},
    {EPFNOSUPPORT, SocketError(10046)},
    {EAFNOSUPPORT, ErrorAddressFamilyNotSupported},
    {EADDRINUSE, SocketError(10048)},
    {EADDRNOTAVAIL, SocketError(10049)},
    {ENETDOWN, SocketError(10050)},
    {ENETUNREACH, SocketError(10051)},
    {ENETRESET, SocketError(10052)},
    {ECONNABORTED, SocketError(10053)},
    {ECONNRESET, ErrorConnectionReset},
    {EPIPE, ErrorConnectionReset},
    {ENOBUFS, SocketError(10055)},
    {EISCONN, SocketError(10056)},
    {ENOTCONN, ErrorNotConnected},
    {ESHUTDOWN, SocketError(10058)},
    {ETOOMANYREFS, SocketError(10059)},
    {ETIMEDOUT, SocketError(10060)},
    {ECONNREFUSED, ErrorConnectionRefused},
    {ELOOP, SocketError(10062)},
    {ENAMETOOLONG, SocketError(10063)},
    {EHOSTDOWN, SocketError(10064)},
    {EHOSTUNREACH, SocketError(10065)},
    {EUSERS, SocketError(10068)},
    {EDQUOT, SocketError(10069)},
    {ESTALE, SocketError(10070)},
    {EREMOTE, SocketError(10071)},
};

}  // namespace

SocketError ToCallerError(int systemError) {
  for (const ErrorPair& pair : errorPairs) {
    if (pair.system == systemError) return pair.caller;
  }
  return SocketError(systemError);
}

int ToSystemError(SocketError error) {
  for (const ErrorPair& pair : errorPairs) {
    if (pair.caller == error) return pair.system;
  }
  return error.Number();
}

SocketError LastSocketError() { return ToCallerError(errno); }

std::string SocketError::SystemText() const {
  // No errno stands for these; the resolver has its own texts.
  if (*this == ErrorPeerClosed) return "Connection closed by the peer";
  if (*this == ErrorHostNotFound) return gai_strerror(EAI_NONAME);
  if (*this == ErrorHostTryAgain) return gai_strerror(EAI_AGAIN);
  if (*this == ErrorHostNoRecovery) return gai_strerror(EAI_FAIL);
  return WindowsAgentCommon::GetLastErrorText(ToSystemError(*this));
}

}  // namespace VaroCommunicationAPI::Platform
