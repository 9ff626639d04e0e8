// A client of the wire protocol with a server that sends anything.
#pragma once

#include "support/FakeRawSocket.h"

#include "wire/ISSLConfigServerAPIClient.h"
#include "wire/ProtocolMismatchException.h"
#include "wire/SocketSerializer.h"

#include <CommunicationAPI/SSLConfigServerProtocolDefinition.h>
#include <host/Digest.h>
#include <host/LoggerFactory.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace sorvex::test {

/// Checks that nothing from the server starts a line of the log.
class LineCheckingSink : public WindowsAgentCommon::ILogSink {
 public:
  bool IsEnabled(WindowsAgentCommon::LogLevel) const override { return true; }
  void Write(WindowsAgentCommon::LogLevel, const std::string&, const std::string& message) override {
    if (message.find_first_of("\r\n") != std::string::npos) std::abort();
  }
};

struct LineCheckingLog {
  LineCheckingLog() { WindowsAgentCommon::LoggerFactory::SetSink(std::make_shared<LineCheckingSink>()); }
};

/// How an exchange ends.
enum class Ending { Returned, SocketFailure, BadType, OtherVersion };

/// The expected result of the server's bytes, read independently with separate bounds.
class ExpectedClient {
 public:
  struct Data {
    std::string content;  ///< empty when nothing is held
    std::string md5;
  };

  ExpectedClient(SSLConfigServerProto::WireProtocol protocol, std::string_view said)
      : m_bVersion2(protocol == SSLConfigServerProto::WireProtocol::Version2), m_unread(said) {}

  /// `exchange` is '1' to '5', the request type in protocol 1.0.
  Ending Exchange(char exchange) {
    m_longestRead = 0;
    try {
      ReadResponse(exchange);
    } catch (const Failure& failure) {
      return failure.ending;
    }
    return Ending::Returned;
  }

  std::uint32_t ResultCode() const { return m_resultCode; }  ///< of an exchange that returned
  std::size_t Unread() const { return m_unread.size(); }
  std::uint32_t LongestRead() const { return m_longestRead; }  ///< of the last exchange, with a length in its bound
  const Data& Configuration() const { return m_configuration; }
  const Data& Code() const { return m_code; }
  const Data& ServerPublicKey() const { return m_serverPublicKey; }

 private:
  static constexpr std::uint32_t maxStringBytes = 1024 * 1024;
  static constexpr std::uint32_t maxDigestBytes = 32;
  static constexpr std::uint32_t maxDataBytes = 100 * 1024 * 1024;

  struct Failure {
    Ending ending;
  };

  std::string_view Take(std::uint32_t size, std::uint32_t bound) {
    if (size > bound) throw Failure{Ending::SocketFailure};
    m_longestRead = std::max(m_longestRead, size);
    const std::string_view taken = m_unread.substr(0, size);
    m_unread.remove_prefix(taken.size());
    if (taken.size() < size) throw Failure{Ending::SocketFailure};
    return taken;
  }

  std::uint32_t TakeNumber() {
    std::uint32_t number = 0;
    for (const char byte : Take(4, 4)) number = number << 8 | static_cast<std::uint8_t>(byte);
    return number;
  }

  std::string_view TakeText(std::uint32_t bound) { return Take(TakeNumber(), bound); }

  /// Releases `held` first: after any later failure nothing old is left.
  void TakeData(Data& held) {
    held = {};
    const std::uint32_t size = TakeNumber();
    const std::string_view digest = m_bVersion2 ? TakeText(maxDigestBytes) : std::string_view();
    const std::string_view content = Take(size, maxDataBytes);
    if (content.empty()) return;
    held.content = content;
    held.md5 = m_bVersion2 ? std::string(digest) : WindowsAgentCommon::MD5Sum(content.data(), content.size());
  }

  void ReadResponse(char exchange) {
    const std::uint32_t type = TakeNumber();
    if (exchange == '1' && m_bVersion2 && type == 1) throw Failure{Ending::OtherVersion};
    if (exchange == '1' && m_bVersion2 && type != 6) throw Failure{Ending::BadType};
    TakeNumber();
    TakeText(maxStringBytes);
    m_resultCode = TakeNumber();
    if (exchange == '1' && m_bVersion2) TakeText(maxStringBytes);
    if (exchange == '1' && !m_bVersion2 && type != 1) throw Failure{Ending::BadType};
    if (exchange == '4' && m_bVersion2) TakeData(m_serverPublicKey);
    if (exchange == '4') TakeData(m_configuration);
    if (exchange == '5') TakeData(m_code);
  }

  const bool m_bVersion2;
  std::string_view m_unread;
  std::uint32_t m_longestRead = 0;
  std::uint32_t m_resultCode = 0;
  Data m_configuration;
  Data m_code;
  Data m_serverPublicKey;
};

inline std::uint32_t Exchange(SSLConfigServerProto::ISSLConfigServerAPIClient& client,
                              WindowsAgentCommon::ISerializer& serializer, char exchange) {
  switch (exchange) {
    case '1': return client.ConnectionEstablishment(serializer, SSLConfigServerProto::CONNECTION_FLAG_NONE);
    case '2': return client.RegisterInstance(serializer, "os", "agent", "parameters");
    case '3': return client.UpdateStatus(serializer, 1, 2);
    case '4': return client.ConfigurationUpdate(serializer, std::string(32, 'F'));
    default: return client.CodeUpdate(serializer, "version");
  }
}

inline Ending ExchangeEnding(SSLConfigServerProto::ISSLConfigServerAPIClient& client,
                             WindowsAgentCommon::ISerializer& serializer, char exchange, std::uint32_t& resultCode) {
  try {
    resultCode = Exchange(client, serializer, exchange);
  } catch (const SSLConfigServerProto::ProtocolMismatchException& mismatch) {
    if (mismatch.GetClientVersion() != "2.0" || mismatch.GetServerVersion() != "1.0") std::abort();
    return Ending::OtherVersion;
  } catch (const SSLConfigServerProto::ProtocolException&) {
    return Ending::BadType;
  } catch (const WindowsAgentCommon::SocketException&) {
    return Ending::SocketFailure;
  }
  return Ending::Returned;
}

/// A block is returned if something is held, and is then not empty.
inline bool HandsOut(bool bHeld, const std::shared_ptr<ACE_Message_Block>& block, const std::string& content) {
  if (!bHeld || !block) return !bHeld && !block && content.empty();
  return block->length() != 0 && std::string_view(block->rd_ptr(), block->length()) == content;
}

inline void CheckHeld(const SSLConfigServerProto::ISSLConfigServerAPIClient& client, const ExpectedClient& expected) {
  std::shared_ptr<ACE_Message_Block> block;
  std::string md5 = "stale";
  if (!HandsOut(client.GetConfigurationData(block, md5), block, expected.Configuration().content)) std::abort();
  if (md5 != expected.Configuration().md5) std::abort();
  md5 = "stale";
  if (!HandsOut(client.GetCodeData(block, md5), block, expected.Code().content)) std::abort();
  if (md5 != expected.Code().md5) std::abort();
  if (!HandsOut(client.GetServerPublicKey(block), block, expected.ServerPublicKey().content)) std::abort();
}

/// The first line of `input` chooses the exchanges, '1' to '5' by their request type; the rest is what the server
/// sends.
inline void Converse(SSLConfigServerProto::ISSLConfigServerAPIClient& client,
                     SSLConfigServerProto::WireProtocol protocol, std::string_view input) {
  const std::size_t end = std::min(input.find('\n'), input.size());
  const std::string_view said = input.substr(std::min(end + 1, input.size()));
  const auto socket = std::make_shared<FakeRawSocket>(said);
  VaroCommunicationAPI::SocketSerializer serializer(socket);
  ExpectedClient expected(protocol, said);
  for (const char choice : input.substr(0, end)) {
    const char exchange = static_cast<char>('1' + static_cast<std::uint8_t>(choice - '1') % 5);
    socket->Clear();
    std::uint32_t resultCode = 0;
    const Ending ending = ExchangeEnding(client, serializer, exchange, resultCode);
    if (ending != expected.Exchange(exchange)) std::abort();
    if (ending == Ending::Returned && resultCode != expected.ResultCode()) std::abort();
    if (socket->Unread() != expected.Unread()) std::abort();
    for (const FakeRawSocket::Call& call : socket->Calls()) {
      // The size requested was allocated before: never more than a bound allows.
      if (call.kind == FakeRawSocket::Call::Kind::Receive && call.length > expected.LongestRead()) std::abort();
    }
    CheckHeld(client, expected);
  }
}

}  // namespace sorvex::test
