// What the tests of the running agent share.
#pragma once

#include "AgentFixture.h"
#include "support/ScopedVariable.h"
#include "support/WaitUntil.h"

#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sorvex::test {

/// An agent that runs until it is asked to end; the destructor kills it.
class RunningAgent {
 public:
  explicit RunningAgent(const Installation& installation, std::vector<std::string> further = {},
                        const std::string& intervalSeconds = "1") {
    std::vector<std::string> command{"run", "--interval", intervalSeconds};
    command.insert(command.end(), further.begin(), further.end());
    m_pProcess = std::make_unique<ChildProcess>(SORVEX_AGENT_PROGRAM, installation.Arguments(command));
  }

  /// Ends it like a crash.
  void Kill() { m_pProcess.reset(); }

  /// Asks it to end; returns its exit status, or nothing when it does not end in time. It needs at most three seconds
  /// itself; a busy machine may need extra time.
  std::optional<int> End() {
    m_pProcess->RequestEnd();
    return m_pProcess->Wait(std::chrono::seconds(8));
  }

  ChildProcess& Process() { return *m_pProcess; }
  std::string Log() const { return m_pProcess->Errors(); }
  testing::AssertionResult WaitForLog(const std::string& text) const {
    if (WaitUntil([&] { return Log().find(text) != std::string::npos; })) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "the log has no '" << text << "':\n" << Log();
  }
  testing::AssertionResult WaitForLogInOrder(const std::string& first, const std::string& second) const {
    if (const testing::AssertionResult found = WaitForLog(second); !found) return found;
    const std::string log = Log();
    if (log.find(first) < log.find(second)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "the log has no '" << first << "' before '" << second << "':\n" << log;
  }

 private:
  std::unique_ptr<ChildProcess> m_pProcess;
};

/// For an agent whose end may be cut short: its threads are not joined then, which the thread sanitizer would report.
struct ThreadsMayRemain {
  ScopedVariable sanitizer{"TSAN_OPTIONS", "report_thread_leaks=0"};
};

inline std::size_t CountOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

inline void Append(const std::filesystem::path& file, std::string_view text) {
  std::ofstream stream(file, std::ios::binary | std::ios::app);
  stream << text;
}

inline std::string TcpDestination(std::uint16_t port) {
  return "<Destination Type=\"tcp\" Address=\"127.0.0.1\" Port=\"" + std::to_string(port) +
         "\" Builder=\"RawPayloadBuilder\"/>";
}

/// A configuration that follows the files of a pattern from their beginning.
inline std::string MakeConfiguration(const std::filesystem::path& pattern, const std::string& destinations,
                                     const std::string& components = {}) {
  return "<AgentConfig>\n<Inputs><File Path=\"" + pattern.string() +
         "\" From=\"beginning\"/></Inputs>\n<Destinations>" + destinations + "</Destinations>\n<Components>" +
         components + "</Components>\n</AgentConfig>\n";
}

/// The value of the line with this name in the output of `status`; empty when there is none.
inline std::string StatusOf(const Installation& installation, const std::string& name) {
  const std::string output = "\n" + installation.Run({"status"}).output;
  const std::size_t at = output.find("\n" + name + " ");
  if (at == std::string::npos) return "";
  const std::size_t begin = output.find_first_not_of(' ', at + 1 + name.size());
  return output.substr(begin, output.find('\n', begin) - begin);
}

}  // namespace sorvex::test
