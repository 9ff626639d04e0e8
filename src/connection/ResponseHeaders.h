// The headers of an HTTP response.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace VaroCommunicationAPI {

/// Takes a response's header lines as they come and keeps those of the last response, at most 1 MiB of text.
class ResponseHeaders {
 public:
  static constexpr std::size_t maxBytes = 1048576;

  /// A line that begins with "HTTP/" starts anew and is kept under "Version"; any other with a ":" is kept by its name,
  /// in place of an earlier one of that name. Lines without ":", and those beyond the limit, are ignored.
  void AddLine(std::string_view line);

  void Clear();

  const std::map<std::string, std::string>& All() const { return m_headers; }

 private:
  void Store(std::string_view name, std::string_view value);

  std::map<std::string, std::string> m_headers;
  std::size_t m_bytes = 0;  ///< of all lines that were stored, those that were replaced among them
};

}  // namespace VaroCommunicationAPI
