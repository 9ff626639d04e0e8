// The headers of an HTTP response.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace VaroCommunicationAPI {

/// Takes header lines as they arrive and keeps those of the last response, at most 1 MiB of text.
class ResponseHeaders {
 public:
  static constexpr std::size_t maxBytes = 1048576;

  /// A line that begins with "HTTP/" starts a new response and is stored under "Version"; any other line with a ":" is
  /// stored by its name, replacing an earlier one. Lines without ":", and those beyond the limit, are ignored.
  void AddLine(std::string_view line);

  void Clear();

  const std::map<std::string, std::string>& All() const { return m_headers; }

 private:
  void Store(std::string_view name, std::string_view value);

  std::map<std::string, std::string> m_headers;
  std::size_t m_bytes = 0;  ///< of all lines stored, including replaced ones
};

}  // namespace VaroCommunicationAPI
