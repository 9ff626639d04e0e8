// An agent's HTTPS commands, written by hand for the tests of the configuration server.
#pragma once

#include "TlsClient.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace sorvex::test {

constexpr const char* httpsToken = "4b1d-99e0";

/// The request of one command. `further` holds header lines, each with its line end.
inline std::string HttpsCommandRequest(std::string_view query, std::string_view token = httpsToken,
                                       std::string_view further = {}) {
  return "GET /console/sorvex?" + std::string(query) +
         " HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: */*\r\nSEC: " + std::string(token) + "\r\n" + std::string(further) +
         "\r\n";
}

struct HttpsAnswer {
  int status = 0;
  std::string head;  ///< from the status line to the empty line
  std::string body;

  /// The value of a header field; "(absent)" without one.
  std::string Field(const std::string& name) const {
    const std::size_t position = head.find("\r\n" + name + ": ");
    if (position == std::string::npos) return "(absent)";
    const std::size_t begin = position + name.size() + 4;
    return head.substr(begin, head.find("\r\n", begin) - begin);
  }
};

class HttpsClient : public TlsClient {
 public:
  explicit HttpsClient(std::uint16_t port) : TlsClient(port) {}

  HttpsAnswer Ask(const std::string& request) {
    Send(request);
    return ReceiveAnswer();
  }
  HttpsAnswer Command(std::string_view query) { return Ask(HttpsCommandRequest(query)); }

  /// Throws when the server closes the connection inside it.
  HttpsAnswer ReceiveAnswer() {
    HttpsAnswer answer;
    while (!answer.head.ends_with("\r\n\r\n")) answer.head += ReceiveExactly(1);
    answer.status = std::stoi(answer.head.substr(answer.head.find(' ') + 1));
    const std::string length = answer.Field("Content-Length");
    if (length != "(absent)") answer.body = ReceiveExactly(std::stoul(length));
    return answer;
  }

 private:
  std::string ReceiveExactly(std::size_t count) {
    std::string bytes = Receive(count);
    if (bytes.size() != count) throw std::runtime_error("the server ended the connection inside an answer");
    return bytes;
  }
};

}  // namespace sorvex::test
