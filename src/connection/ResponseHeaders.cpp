#include "connection/ResponseHeaders.h"

#include <boost/algorithm/string/trim.hpp>

#include <locale>

namespace VaroCommunicationAPI {

namespace {

std::string Trimmed(std::string_view text) {
  return boost::algorithm::trim_copy(std::string(text), std::locale::classic());
}

}  // namespace

void ResponseHeaders::AddLine(std::string_view line) {
  if (line.starts_with("HTTP/")) {
    Clear();
    Store("Version", line);
    return;
  }
  const std::size_t colon = line.find(':');
  if (colon != std::string_view::npos) Store(line.substr(0, colon), line.substr(colon + 1));
}

void ResponseHeaders::Clear() {
  m_headers.clear();
  m_bytes = 0;
}

void ResponseHeaders::Store(std::string_view name, std::string_view value) {
  const std::size_t bytes = name.size() + value.size();
  if (bytes > maxBytes - m_bytes) return;
  m_bytes += bytes;
  m_headers[Trimmed(name)] = Trimmed(value);
}

}  // namespace VaroCommunicationAPI
