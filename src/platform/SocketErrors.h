// Error numbers of sockets, as the module's callers compare them, on every system.
#pragma once

#include <string>

namespace VaroCommunicationAPI::Platform {

/// The numbers that the module itself compares with or sets. 137 is ACE's timeout; the others are Winsock's.
enum SocketError : int {
  ErrorNone = 0,
  ErrorWaitTimeout = 137,
  ErrorInterrupted = 10004,
  ErrorInvalidArgument = 10022,
  ErrorWouldBlock = 10035,
  ErrorMessageTooLong = 10040,
  ErrorAddressFamilyNotSupported = 10047,
  ErrorConnectionReset = 10054,
  ErrorNotConnected = 10057,
  ErrorConnectionRefused = 10061,
  ErrorPeerClosed = 10101,
  ErrorHostNotFound = 11001,
  ErrorHostTryAgain = 11002,
  ErrorHostNoRecovery = 11003,
};

/// Converts a system number to the callers'; a number without a counterpart is returned unchanged.
int ToCallerError(int systemError);

/// Converts back; where several system numbers share a caller's number, returns the usual one.
int ToSystemError(int callerError);

/// The calling thread's last socket error (ACE keeps it in `errno`), in the callers' numbers.
int LastSocketError();

/// The system's text for a caller's number, UTF-8.
std::string SocketErrorText(int callerError);

}  // namespace VaroCommunicationAPI::Platform
