// What libcurl tells about its work when it is asked to.
#pragma once

#include "platform/SecretText.h"

#include <host/Log.h>

#include <array>
#include <cstddef>
#include <string_view>

namespace VaroCommunicationAPI {

/// Writes libcurl's own account of a request to the log at Debug, line by line, without the application token: the
/// value of the header that carries it, and the token wherever else it occurs, are left out. One thread at a time.
class CurlTrace {
 public:
  enum class Kind : std::size_t { Text, HeaderIn, HeaderOut };

  CurlTrace(const WindowsAgentCommon::Log& log, const Platform::SecretText& token) : m_log(log), m_token(token) {}

  /// Takes the next piece of a kind, which may end inside a line: a line is logged when it is whole.
  void Add(Kind kind, std::string_view piece);

 private:
  void LogLine(Kind kind, std::string_view line) const;

  const WindowsAgentCommon::Log m_log;
  const Platform::SecretText m_token;
  std::array<Platform::SecretText, 3> m_begun;  ///< of each kind, the line that is not whole yet
};

}  // namespace VaroCommunicationAPI
