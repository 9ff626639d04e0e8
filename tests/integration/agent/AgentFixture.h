// What the agent's tests share: an installation and its agent.
#pragma once

#include "support/ChildProcess.h"
#include "support/LoopbackTcpServer.h"
#include "support/RefusingPort.h"
#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace sorvex::test {

/// A directory with an install file, and the agent running on it.
class Installation {
 public:
  explicit Installation(std::string_view installFile = "ApplicationID=7\n", std::string_view name = "agent")
      : m_directory(name) {
    if (!installFile.empty()) m_directory.Write("install_config.txt", installFile);
  }

  std::vector<std::string> Arguments(const std::vector<std::string>& command) const {
    std::vector<std::string> arguments{"--config-dir", m_directory.Path().string(), "--patch-dir",
                                       (m_directory.Path() / "patch").string()};
    arguments.insert(arguments.end(), command.begin(), command.end());
    return arguments;
  }

  ProcessResult Run(const std::vector<std::string>& command, std::string_view input = {}) const {
    return RunProcess(SORVEX_AGENT_PROGRAM, Arguments(command), input);
  }

  const TemporaryDirectory& Directory() const { return m_directory; }

 private:
  TemporaryDirectory m_directory;
};

/// The value of the line "key: value" in what the agent printed; "(absent)" without such a line.
inline std::string Value(const std::string& output, const std::string& key) {
  const std::string lines = "\n" + output;
  const std::string start = "\n" + key + ": ";
  const std::size_t position = lines.find(start);
  if (position == std::string::npos) return "(absent)";
  const std::size_t begin = position + start.size();
  return lines.substr(begin, lines.find('\n', begin) - begin);
}

inline std::string TcpUrl(std::uint16_t port) { return "tcp://127.0.0.1:" + std::to_string(port); }
inline std::string TlsUrl(std::uint16_t port) { return "tls://127.0.0.1:" + std::to_string(port); }
inline std::string UdpUrl(std::uint16_t port) { return "udp://127.0.0.1:" + std::to_string(port); }

/// "forward" of raw payloads to the destinations, with further arguments.
inline std::vector<std::string> ForwardTo(const std::vector<std::string>& urls,
                                          const std::vector<std::string>& further = {}) {
  std::vector<std::string> command{"forward", "--builder", "RawPayloadBuilder"};
  for (const std::string& url : urls) command.insert(command.end(), {"--to", url});
  command.insert(command.end(), further.begin(), further.end());
  return command;
}

/// The printed lines of the destination: from its own to the next one's.
inline std::string BlockOf(const std::string& output, const std::string& url) {
  const std::size_t begin = output.find("destination: " + url + "\n");
  if (begin == std::string::npos) return "";
  return output.substr(begin, output.find("destination: ", begin + 1) - begin);
}

/// The keys of the printed lines, in order.
inline std::vector<std::string> Keys(const std::string& output) {
  std::vector<std::string> keys;
  for (std::size_t begin = 0; begin < output.size(); begin = output.find('\n', begin) + 1) {
    keys.push_back(output.substr(begin, output.find(": ", begin) - begin));
  }
  return keys;
}

}  // namespace sorvex::test
