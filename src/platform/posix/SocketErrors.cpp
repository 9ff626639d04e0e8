#include "platform/SocketErrors.h"

#include <host/SystemError.h>

#include <netdb.h>

#include <cerrno>

namespace VaroCommunicationAPI::Platform {

namespace {

struct ErrorPair {
  int system;
  int caller;
};

// Where two system numbers share a caller's number, converting back gives the first.
constexpr ErrorPair errorPairs[] = {
    {ETIME, ErrorWaitTimeout},
    {EINTR, ErrorInterrupted},
    {EBADF, 10009},
    {EACCES, 10013},
    {EFAULT, 10014},
    {EINVAL, ErrorInvalidArgument},
    {EMFILE, 10024},
    {EWOULDBLOCK, ErrorWouldBlock},
    {EINPROGRESS, 10036},
    {EALREADY, 10037},
    {ENOTSOCK, 10038},
    {EDESTADDRREQ, 10039},
    {EMSGSIZE, ErrorMessageTooLong},
    {EPROTOTYPE, 10041},
    {ENOPROTOOPT, 10042},
    {EPROTONOSUPPORT, 10043},
    {ESOCKTNOSUPPORT, 10044},
    {EOPNOTSUPP, 10045},
    {EPFNOSUPPORT, 10046},
    {EAFNOSUPPORT, ErrorAddressFamilyNotSupported},
    {EADDRINUSE, 10048},
    {EADDRNOTAVAIL, 10049},
    {ENETDOWN, 10050},
    {ENETUNREACH, 10051},
    {ENETRESET, 10052},
    {ECONNABORTED, 10053},
    {ECONNRESET, ErrorConnectionReset},
    {EPIPE, ErrorConnectionReset},
    {ENOBUFS, 10055},
    {EISCONN, 10056},
    {ENOTCONN, ErrorNotConnected},
    {ESHUTDOWN, 10058},
    {ETOOMANYREFS, 10059},
    {ETIMEDOUT, 10060},
    {ECONNREFUSED, ErrorConnectionRefused},
    {ELOOP, 10062},
    {ENAMETOOLONG, 10063},
    {EHOSTDOWN, 10064},
    {EHOSTUNREACH, 10065},
    {EUSERS, 10068},
    {EDQUOT, 10069},
    {ESTALE, 10070},
    {EREMOTE, 10071},
};

}  // namespace

int ToCallerError(int systemError) {
  for (const ErrorPair& pair : errorPairs) {
    if (pair.system == systemError) return pair.caller;
  }
  return systemError;
}

int ToSystemError(int callerError) {
  for (const ErrorPair& pair : errorPairs) {
    if (pair.caller == callerError) return pair.system;
  }
  return callerError;
}

int LastSocketError() { return ToCallerError(errno); }

std::string SocketErrorText(int callerError) {
  switch (callerError) {
    // No errno exists for these; the resolver has its own texts.
    case ErrorPeerClosed: return "Connection closed by the peer";
    case ErrorHostNotFound: return gai_strerror(EAI_NONAME);
    case ErrorHostTryAgain: return gai_strerror(EAI_AGAIN);
    case ErrorHostNoRecovery: return gai_strerror(EAI_FAIL);
    default: return WindowsAgentCommon::GetLastErrorText(ToSystemError(callerError));
  }
}

}  // namespace VaroCommunicationAPI::Platform
