// What syslog daemons receive from the agent.
#include "Receivers.h"
#include "sockets/SSLTCPSocket.h"
#include "sockets/TCPSocket.h"
#include "support/LoopbackTcpServer.h"
#include "support/TlsIdentity.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace sorvex::test {
namespace {

constexpr std::size_t longestLine = 8192;

/// How many lines go over a stream; the environment may ask for more than an ordinary run sends.
int LineCount() {
  const char* const wanted = std::getenv("SORVEX_TEST_LINES");
  return wanted != nullptr ? std::stoi(wanted) : 20'000;
}

/// Numbered lines of many lengths, with tabs, trailing blanks and characters of two to four bytes.
std::string MakeLines(int first, int count, std::size_t longest) {
  constexpr std::array<std::string_view, 6> parts{"plain text ", "Größe\t",        "日本語 ",
                                                  "emoji 😀 ",    "<34>1 % \\ \" ", "trailing blank  "};
  std::string lines;
  for (int number = first; number < first + count; ++number) {
    std::string line = std::to_string(number) + " ";
    const auto seed = static_cast<std::size_t>(number);
    // One line in fifty is as long as possible; the others are like log lines.
    const std::size_t length = number % 50 == 0 ? longest : seed * 7919 % 400;
    for (std::size_t part = seed; line.size() < length; ++part) line += parts[part % parts.size()];
    line.resize(std::min(line.size(), longest));
    // The cut may be inside a character.
    while (!line.empty() && (line.back() & 0x80) != 0) line.pop_back();
    lines += line + "\n";
  }
  return lines;
}

std::vector<std::string_view> Split(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

/// Describes where the received lines differ from the expected ones; printing all of them would be useless.
testing::AssertionResult AreSame(const std::string& received, const std::string& expected) {
  if (received == expected) return testing::AssertionSuccess();
  const std::vector<std::string_view> have = Split(received);
  const std::vector<std::string_view> want = Split(expected);
  const auto [wrong, right] = std::mismatch(have.begin(), have.end(), want.begin(), want.end());
  return testing::AssertionFailure() << have.size() << " lines instead of " << want.size() << "; line "
                                     << wrong - have.begin() << " is\n"
                                     << (wrong == have.end() ? "(absent)" : *wrong) << "\ninstead of\n"
                                     << (right == want.end() ? "(absent)" : *right);
}

std::string ThisHost() {
  std::array<char, 256> name{};
  gethostname(name.data(), name.size() - 1);
  return name.data();
}

/// The lines as a receiver that understands RFC 5424 writes them.
std::string AsParsed(const std::string& lines, const std::string& application) {
  std::string parsed;
  const std::string head = ThisHost() + "|" + application + "|";
  for (const std::string_view line : Split(lines)) parsed.append(head).append(line).append("\n");
  return parsed;
}

using Parameters = std::tuple<Daemon, Transport, bool>;

class Reception : public testing::TestWithParam<Parameters> {
 protected:
  void SetUp() override {
    if (!IsThere(TestedDaemon(), TestedTransport())) GTEST_SKIP() << "the daemon is not there: run script/bootstrap";
    m_installation.Write("install_config.txt", "ApplicationID=7\n");
  }

  static Daemon TestedDaemon() { return std::get<0>(GetParam()); }
  static Transport TestedTransport() { return std::get<1>(GetParam()); }
  static std::unique_ptr<Receiver> StartTested(Writing writing) {
    return StartReceiver(TestedDaemon(), TestedTransport(), writing);
  }

  /// The agent's arguments for forwarding to the receiver.
  std::vector<std::string> Arguments(Receiver& receiver, const std::vector<std::string>& further) const {
    const std::string address = "127.0.0.1:" + std::to_string(receiver.WaitForPort());
    std::vector<std::string> arguments{"--config-dir", m_installation.Path().string(), "forward", "--to"};
    switch (TestedTransport()) {
      case Transport::Tcp: arguments.push_back("tcp://" + address); break;
      case Transport::Tls:
        arguments.insert(arguments.end(), {"tls://" + address, "--certificate", receiver.CertificateFile().string()});
        break;
      case Transport::Udp: arguments.push_back("udp://" + address); break;
    }
    const bool queued = std::get<2>(GetParam());
    if (queued) arguments.emplace_back("--queued");
    arguments.insert(arguments.end(), further.begin(), further.end());
    return arguments;
  }

  TemporaryDirectory m_installation{"interop"};
};

std::string NameOf(const testing::TestParamInfo<Parameters>& test) {
  const auto [daemon, transport, queued] = test.param;
  return std::string(daemon == Daemon::Rsyslog ? "Rsyslog" : "SyslogNg") + Name(transport) +
         (queued ? "Queued" : "Blocking");
}

class StreamReception : public Reception {};

TEST_P(StreamReception, EveryLineArrivesInOrderByteForByte) {
  const std::string lines = MakeLines(0, LineCount(), longestLine);
  const std::filesystem::path file = m_installation.Write("lines.log", lines);
  const std::unique_ptr<Receiver> receiver = StartTested(Writing::Raw);

  const ProcessResult result =
      RunProcess(SORVEX_AGENT_PROGRAM, Arguments(*receiver, {"--builder", "RawPayloadBuilder", file.string()}));
  EXPECT_EQ(result.status, 0) << result.output << result.errors;
  EXPECT_TRUE(AreSame(receiver->Collect(lines.size()), lines));
}

TEST_P(StreamReception, SyslogMessageIsUnderstood) {
  const std::string lines = MakeLines(0, LineCount(), longestLine);
  const std::filesystem::path file = m_installation.Write("my application.log", lines);
  const std::string expected = AsParsed(lines, "my_application.log");
  const std::unique_ptr<Receiver> receiver = StartTested(Writing::Parsed);

  const ProcessResult result = RunProcess(SORVEX_AGENT_PROGRAM, Arguments(*receiver, {file.string()}));
  EXPECT_EQ(result.status, 0) << result.output << result.errors;
  EXPECT_TRUE(AreSame(receiver->Collect(expected.size()), expected));
}

INSTANTIATE_TEST_SUITE_P(Daemons, StreamReception,
                         testing::Combine(testing::Values(Daemon::Rsyslog, Daemon::SyslogNg),
                                          testing::Values(Transport::Tcp, Transport::Tls), testing::Bool()),
                         NameOf);

TEST_P(StreamReception, CountedMessagesArriveWithTheLineFeedsInThem) {
  const std::unique_ptr<Receiver> receiver =
      StartReceiver(TestedDaemon(), TestedTransport(), Writing::Parsed, StreamFraming::OctetCounting);
  const bool queued = std::get<2>(GetParam());
  std::unique_ptr<WindowsAgentCommon::ISocket> socket;
  WindowsAgentCommon::ParameterBlock parameters{{"TargetPort", std::to_string(receiver->WaitForPort())},
                                                {"Socket.BlockingSendStrategy", queued ? "false" : "true"},
                                                {"Framing", "OctetCounting"}};
  if (TestedTransport() == Transport::Tls) {
    socket = std::make_unique<VaroCommunicationAPI::SSLTCPSocket>(VaroCommunicationAPI::SSLProtocolList());
    parameters.emplace("Certificate", ToBase64(TemporaryDirectory::Read(receiver->CertificateFile())));
  } else {
    socket = std::make_unique<VaroCommunicationAPI::TCPSocket>();
  }
  socket->Initialize(parameters);
  std::string expected;
  // Lengths of one to four digits, on both sides of where another digit is needed.
  for (const std::size_t length : {1u, 2u, 43u, 44u, 45u, 46u, 943u, 944u, 945u, 946u, 8000u}) {
    std::string text = "two\nlines ";
    text.resize(length, 'x');
    const std::string message = "<14>1 2026-01-02T03:04:05Z host app - - - " + text;
    ASSERT_EQ(socket->Send(message.data(), static_cast<std::uint32_t>(message.size())),
              static_cast<std::int32_t>(message.size() + std::to_string(message.size()).size() + 1));
    expected += "host|app|" + text + "\n";
  }
  EXPECT_EQ(socket->Shutdown(), 0);
  EXPECT_EQ(receiver->Collect(expected.size()), expected);
}

TEST_P(StreamReception, TheAgentCountsOctets) {
  const std::string lines = MakeLines(0, 1000, longestLine);
  const std::filesystem::path file = m_installation.Write("counted.log", lines);
  const std::string expected = AsParsed(lines, "counted.log");
  const std::unique_ptr<Receiver> receiver =
      StartReceiver(TestedDaemon(), TestedTransport(), Writing::Parsed, StreamFraming::OctetCounting);
  const ProcessResult result =
      RunProcess(SORVEX_AGENT_PROGRAM, Arguments(*receiver, {"--framing", "OctetCounting", file.string()}));
  EXPECT_EQ(result.status, 0) << result.output << result.errors;
  EXPECT_TRUE(AreSame(receiver->Collect(expected.size()), expected));
}

class DatagramReception : public Reception {
 protected:
  /// So few and short lines that all fit into the system's buffer for a receiver that reads none: a datagram without
  /// room is lost. The next lines are sent when these have been written.
  static std::string MakeBurst(int number) { return MakeLines(number * burstLines, burstLines, longestDatagramLine); }

  void ForwardInBursts(Writing writing, const std::vector<std::string>& further) {
    const std::unique_ptr<Receiver> receiver = StartTested(writing);
    ChildProcess agent(SORVEX_AGENT_PROGRAM, Arguments(*receiver, further));
    std::string expected;
    for (int number = 0; number < bursts; ++number) {
      const std::string burst = MakeBurst(number);
      expected += writing == Writing::Raw ? burst : AsParsed(burst, "stdin");
      ASSERT_TRUE(agent.WriteInput(burst));
      if (!receiver->WaitForBytes(expected.size())) break;
    }
    agent.CloseInput();
    EXPECT_EQ(agent.Wait(patience), 0) << agent.Output() << agent.Errors();
    EXPECT_TRUE(AreSame(receiver->Collect(expected.size()), expected));
  }

 private:
  static constexpr int bursts = 30;
  static constexpr int burstLines = 70;
  static constexpr std::size_t longestDatagramLine = 900;
};

TEST_P(DatagramReception, EveryLineArrivesInOrderByteForByte) {
  ForwardInBursts(Writing::Raw, {"--builder", "RawPayloadBuilder"});
}

TEST_P(DatagramReception, SyslogMessageIsUnderstood) { ForwardInBursts(Writing::Parsed, {}); }

INSTANTIATE_TEST_SUITE_P(Daemons, DatagramReception,
                         testing::Combine(testing::Values(Daemon::Rsyslog, Daemon::SyslogNg),
                                          testing::Values(Transport::Udp), testing::Bool()),
                         NameOf);

}  // namespace
}  // namespace sorvex::test
