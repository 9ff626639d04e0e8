// What the tests of the configuration server share: requests written by hand, and a client to send them.
#pragma once

#include "ConfigServerProcess.h"
#include "TlsClient.h"
#include "support/HexBytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace sorvex::test {

inline std::string U32(std::uint32_t value) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift & 0xFF);
  return bytes;
}

inline std::string Text(std::string_view text) { return U32(static_cast<std::uint32_t>(text.size())).append(text); }

/// A record of these fields.
inline std::string Record(std::uint32_t type, std::string_view version, const std::string& fields) {
  return U32(type) + U32(static_cast<std::uint32_t>(7 + fields.size())) + Text(version) + fields;
}

inline std::string Establishment1(std::string_view identifier = "agent-7", std::string_view token = "4b1d-99e0") {
  return Record(1, "1.0", Text("1.0") + Text(identifier) + Text(token));
}

/// Without a key, as sent by an agent without one: four zero bytes.
inline std::string Establishment2(std::string_view identifier = "agent-7", std::string_view token = "4b1d-99e0",
                                  std::uint32_t flags = 0) {
  return Record(6, "2.0",
                Text("2.0") + Text(identifier) + Text(token) + U32(flags) + HexBytes("00 00 00 00 6B 00 B7 5D") +
                    Text("CET (UTC + 60) Daylight Savings is not in effect") + U32(0));
}

inline std::string RegisterRequest(std::string_view version, std::string_view autoCreation = "") {
  return Record(2, version, Text("Debian 12") + Text("7.2.5") + Text(autoCreation));
}

inline std::string StatusRequest(std::string_view version, std::uint32_t status = 1) {
  return Record(3, version, U32(status) + HexBytes("6B 00 B7 5D"));
}

constexpr std::string_view noFingerprint = "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF";

inline std::string ConfigurationRequest(std::string_view version, std::string_view digest = noFingerprint) {
  return Record(4, version, Text(digest));
}

inline std::string PatchRequest(std::string_view version, std::string_view names) {
  return Record(5, version, Text(names));
}

/// The bytes of a response with only a result, and of a successful 2.0 establishment.
inline std::string ResultResponse(std::uint32_t type, std::string_view version, std::uint32_t result) {
  return Record(type, version, U32(result));
}
inline std::string Establishment2Response(std::uint32_t result = 0) {
  return Record(6, "2.0", U32(result) + Text("2.0"));
}

/// A client that the server has admitted, with 2.0 or 1.0.
class AdmittedClient : public TlsClient {
 public:
  explicit AdmittedClient(const ConfigServer& server, std::string_view version = "2.0",
                          std::string_view identifier = "agent-7")
      : TlsClient(server.Port()) {
    const bool isVersion2 = version == "2.0";
    EXPECT_EQ(Ask(isVersion2 ? Establishment2(identifier) : Establishment1(identifier),
                  isVersion2 ? Establishment2Response() : ResultResponse(1, "1.0", 0)),
              true);
  }

  /// Sends a request; returns whether exactly these bytes come back.
  bool Ask(const std::string& request, const std::string& response) {
    Send(request);
    const std::string received = Receive(response.size());
    EXPECT_EQ(testing::PrintToString(received), testing::PrintToString(response));
    return received == response;
  }

  /// Sends a request for data; returns the result, the configuration or patch, and its digest.
  struct Delivery {
    std::uint32_t result = 0;
    std::string key;
    std::string digest;
    std::string data;
  };
  Delivery Fetch(const std::string& request) {
    Send(request);
    const std::string header = Receive(15);
    const std::uint32_t type = NumberIn(header, 0);
    const bool isVersion2 = header.size() == 15 && header[12] == '2';
    Delivery delivery;
    delivery.result = NumberIn(Receive(4), 0);
    if (type == 4 && isVersion2) {
      const std::uint32_t size = NumberIn(Receive(4), 0);
      Receive(NumberIn(Receive(4), 0));
      delivery.key = Receive(size);
    }
    const std::uint32_t size = NumberIn(Receive(4), 0);
    if (isVersion2) delivery.digest = Receive(NumberIn(Receive(4), 0));
    delivery.data = Receive(size);
    // The record is as long as it says.
    const std::size_t keyPart = type == 4 && isVersion2 ? 8 + (delivery.key.empty() ? 0 : 32) + delivery.key.size() : 0;
    EXPECT_EQ(NumberIn(header, 4),
              7 + 4 + keyPart + 4 + (isVersion2 ? 4 + delivery.digest.size() : 0) + delivery.data.size());
    return delivery;
  }

  static std::uint32_t NumberIn(const std::string& bytes, std::size_t offset) {
    if (bytes.size() < offset + 4) throw std::runtime_error("the server ended the connection inside a response");
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(bytes[offset + i]);
    return value;
  }
};

}  // namespace sorvex::test
