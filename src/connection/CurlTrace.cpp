#include "connection/CurlTrace.h"

#include <boost/algorithm/string/find.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <algorithm>
#include <locale>
#include <string>

namespace VaroCommunicationAPI {

namespace {

void Append(Platform::SecretText& text, std::string_view piece) {
  const std::size_t size = text.View().size();
  text.Resize(size + piece.size());
  std::copy(piece.begin(), piece.end(), text.Data() + size);
}

}  // namespace

void CurlTrace::Add(Kind kind, std::string_view piece) {
  Platform::SecretText& begun = m_begun[static_cast<std::size_t>(kind)];
  for (std::size_t end = piece.find('\n'); end != std::string_view::npos; end = piece.find('\n')) {
    Append(begun, piece.substr(0, end));
    LogLine(kind, begun.View());
    begun = {};
    piece.remove_prefix(end + 1);
  }
  Append(begun, piece);
}

void CurlTrace::LogLine(Kind kind, std::string_view line) const {
  constexpr std::array<const char*, 3> marks{"*", "<", ">"};
  constexpr const char* omission = "***";
  // In every form of the header, HTTP/1's or "[sec: ...]", the rest of its line is the value.
  const auto header = boost::algorithm::ifind_first(line, "sec:", std::locale::classic());
  std::string shown;
  // Piece by piece, so that no string ever holds the token.
  std::string_view rest(line.begin(), header ? header.end() : line.end());
  const std::string_view token = m_token.View();
  while (!token.empty()) {
    const std::size_t found = rest.find(token);
    if (found == std::string_view::npos) break;
    shown += rest.substr(0, found);
    shown += omission;
    rest.remove_prefix(found + token.size());
  }
  shown += rest;
  if (header) shown += std::string(" ") + omission;
  boost::algorithm::trim_right_if(shown, boost::algorithm::is_any_of("\r"));
  m_log.Debug("libcurl: %s %s", marks[static_cast<std::size_t>(kind)], shown);
}

}  // namespace VaroCommunicationAPI
