// Error numbers of sockets, as the module's callers compare them, on every system.
#pragma once

#include <cstdint>
#include <string>

namespace VaroCommunicationAPI::Platform {

/// What ended an operation on a socket, or nothing: 137 for a wait that timed out, Winsock's number of every condition
/// that has one, the system's own number of the others, or the TLS library's own code where that refused. A value.
class SocketError {
 public:
  constexpr SocketError() = default;

  /// `reason`, which has to last, is the text of a number that the system does not know.
  explicit constexpr SocketError(std::int32_t number, const char* reason = nullptr)
      : m_number(number), m_reason(reason) {}

  /// The number as callers are told it; 0 for no error.
  constexpr std::int32_t Number() const { return m_number; }

  std::string Text() const { return m_reason ? m_reason : SystemText(); }

  /// Whether there is an error.
  explicit constexpr operator bool() const { return m_number != 0; }

  friend constexpr bool operator==(SocketError left, SocketError right) { return left.m_number == right.m_number; }

 private:
  /// UTF-8.
  std::string SystemText() const;

  std::int32_t m_number = 0;
  const char* m_reason = nullptr;
};

/// The errors that the module itself compares with or sets.
inline constexpr SocketError ErrorNone;
inline constexpr SocketError ErrorWaitTimeout{137};
inline constexpr SocketError ErrorInterrupted{10004};
inline constexpr SocketError ErrorInvalidArgument{10022};
inline constexpr SocketError ErrorWouldBlock{10035};
inline constexpr SocketError ErrorMessageTooLong{10040};
inline constexpr SocketError ErrorAddressFamilyNotSupported{10047};
inline constexpr SocketError ErrorConnectionReset{10054};
inline constexpr SocketError ErrorNotConnected{10057};
inline constexpr SocketError ErrorConnectionRefused{10061};
inline constexpr SocketError ErrorPeerClosed{10101};
inline constexpr SocketError ErrorHostNotFound{11001};
inline constexpr SocketError ErrorHostTryAgain{11002};
inline constexpr SocketError ErrorHostNoRecovery{11003};

/// Converts a number of the system's own; one without a counterpart stays as it is.
SocketError ToCallerError(int systemError);

/// Converts back; of several system numbers behind one caller's number the usual one is returned.
int ToSystemError(SocketError error);

/// The calling thread's last socket error (ACE keeps it in `errno`).
SocketError LastSocketError();

}  // namespace VaroCommunicationAPI::Platform
