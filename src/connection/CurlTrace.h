// libcurl's verbose output.
#pragma once

#include "platform/SecretText.h"

#include <host/Log.h>

#include <array>
#include <cstddef>
#include <string_view>

namespace VaroCommunicationAPI {

/// Logs libcurl's account of a request at Debug, line by line, without the application token: omits the value of the
/// token's header and every other occurrence of the token. One thread at a time.
class CurlTrace {
 public:
  enum class Kind : std::size_t { Text, HeaderIn, HeaderOut };

  CurlTrace(const WindowsAgentCommon::Log& log, const Platform::SecretText& token) : m_log(log), m_token(token) {}

  /// Takes the next piece of a kind, which may end inside a line: a line is logged when it is complete.
  void Add(Kind kind, std::string_view piece);

 private:
  void LogLine(Kind kind, std::string_view line) const;

  const WindowsAgentCommon::Log m_log;
  const Platform::SecretText m_token;
  std::array<Platform::SecretText, 3> m_begun;  ///< of each kind, the incomplete line
};

}  // namespace VaroCommunicationAPI
