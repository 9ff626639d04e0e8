// What syslog daemons make of what the agent sends.
#include "Receivers.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace sorvex::test {
namespace {

constexpr int lineCount = 20'000;
constexpr std::size_t longestLine = 8192;

/// Numbered lines of many lengths, with tabs, blanks at their ends and characters of two to four bytes.
std::string MakeLines() {
  constexpr std::array<std::string_view, 6> parts{"plain text ", "Größe\t",        "日本語 ",
                                                  "emoji 😀 ",    "<34>1 % \\ \" ", "trailing blank  "};
  std::string lines;
  for (int number = 0; number < lineCount; ++number) {
    std::string line = std::to_string(number) + " ";
    const auto seed = static_cast<std::size_t>(number);
    // One line in fifty is as long as can be, the others as log lines are.
    const std::size_t length = number % 50 == 0 ? longestLine : seed * 7919 % 400;
    for (std::size_t part = seed; line.size() < length; ++part) line += parts[part % parts.size()];
    line.resize(std::min(line.size(), longestLine));
    // The cut may have fallen into a character.
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

/// Tells where the received lines leave the expected ones; a comparison that prints all is of no use here.
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

class Reception : public testing::TestWithParam<std::tuple<Daemon, bool>> {
 protected:
  void SetUp() override {
    if (FindDaemon(TestedDaemon()).empty()) GTEST_SKIP() << "the daemon is not there: run script/bootstrap";
    m_installation.Write("install_config.txt", "ApplicationID=7\n");
  }

  static Daemon TestedDaemon() { return std::get<0>(GetParam()); }

  ProcessResult Forward(Receiver& receiver, const std::vector<std::string>& further,
                        const std::filesystem::path& file) const {
    std::vector<std::string> arguments{"--config-dir", m_installation.Path().string(), "forward", "--to",
                                       "tcp://127.0.0.1:" + std::to_string(receiver.WaitForPort())};
    const bool queued = std::get<1>(GetParam());
    if (queued) arguments.emplace_back("--queued");
    arguments.insert(arguments.end(), further.begin(), further.end());
    arguments.push_back(file.string());
    return RunProcess(SORVEX_AGENT_PROGRAM, arguments);
  }

  TemporaryDirectory m_installation{"interop"};
};

TEST_P(Reception, EveryLineArrivesInOrderByteForByte) {
  const std::string lines = MakeLines();
  const std::filesystem::path file = m_installation.Write("lines.log", lines);
  const std::unique_ptr<Receiver> receiver = StartReceiver(TestedDaemon(), Writing::Raw);

  const ProcessResult result = Forward(*receiver, {"--builder", "RawPayloadBuilder"}, file);
  EXPECT_EQ(result.status, 0) << result.output << result.errors;
  EXPECT_TRUE(AreSame(receiver->Collect(lines.size()), lines));
}

TEST_P(Reception, SyslogMessageIsUnderstood) {
  const std::string lines = MakeLines();
  const std::filesystem::path file = m_installation.Write("my application.log", lines);
  std::string expected;
  const std::string head = ThisHost() + "|my_application.log|";
  for (const std::string_view line : Split(lines)) expected.append(head).append(line).append("\n");
  const std::unique_ptr<Receiver> receiver = StartReceiver(TestedDaemon(), Writing::Parsed);

  const ProcessResult result = Forward(*receiver, {}, file);
  EXPECT_EQ(result.status, 0) << result.output << result.errors;
  EXPECT_TRUE(AreSame(receiver->Collect(expected.size()), expected));
}

INSTANTIATE_TEST_SUITE_P(Daemons, Reception,
                         testing::Combine(testing::Values(Daemon::Rsyslog, Daemon::SyslogNg), testing::Bool()),
                         [](const testing::TestParamInfo<std::tuple<Daemon, bool>>& test) {
                           const bool queued = std::get<1>(test.param);
                           return std::string(std::get<0>(test.param) == Daemon::Rsyslog ? "Rsyslog" : "SyslogNg") +
                                  (queued ? "Queued" : "Blocking");
                         });

}  // namespace
}  // namespace sorvex::test
