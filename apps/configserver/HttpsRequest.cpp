#include <HttpsRequest.h>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>

#include <algorithm>

namespace sorvex::configserver {
namespace {

namespace http = boost::beast::http;

constexpr std::string_view headEnd = "\r\n\r\n";
constexpr std::string_view tokenField = "SEC";

HttpsRequest ReadHead(std::string_view head) {
  http::request_parser<http::empty_body> parser;
  parser.header_limit(maxHttpsRequestBytes);
  boost::system::error_code error;
  parser.put(boost::asio::buffer(head), error);
  if (!parser.is_header_done()) return {.size = head.size(), .content = Refusal{400, error.message()}};

  HttpsRequest request{.size = head.size(), .keepsConnection = parser.keep_alive()};
  const auto& message = parser.get();
  if (parser.chunked() || parser.content_length().value_or(0) > 0) {
    request.content = Refusal{400, "a body"};
  } else if (message.method() != http::verb::get) {
    request.content = Refusal{405, "another method than GET"};
  } else if (message.count(tokenField) > 1) {
    request.content = Refusal{400, "several tokens"};
  } else {
    request.token = message[tokenField];
    request.content = ReadHttpsCommand(message.target());
  }
  return request;
}

}  // namespace

std::optional<HttpsRequest> HttpsRequestReader::Read(std::string_view bytes) {
  const std::string_view bounded = bytes.substr(0, maxHttpsRequestBytes);
  // The end may have come in several parts.
  const std::size_t end = bounded.find(headEnd, m_searched - std::min(m_searched, headEnd.size() - 1));
  if (end == std::string_view::npos) {
    m_searched = bounded.size();
    if (bounded.size() < maxHttpsRequestBytes) return std::nullopt;
    return HttpsRequest{.size = bytes.size(), .content = Refusal{431, "too long"}};
  }
  m_searched = 0;
  return ReadHead(bounded.substr(0, end + headEnd.size()));
}

}  // namespace sorvex::configserver
