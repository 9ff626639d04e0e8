// What an agent reports while it runs.
#pragma once

#include <CommandLine.h>
#include <ServerLoop.h>

#include <delivery/Channel.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace sorvex::agent {

using WallTime = std::chrono::system_clock::time_point;

struct StatusReport {
  WallTime started;
  std::string mode;    ///< "stand-alone", "direct-tls", "https"
  std::string server;  ///< its name or address; empty without one
  std::string digest;  ///< of the configuration in force; empty without one
  WallTime applied;
  std::string refused;  ///< why another configuration is not in force; empty when there is none
  std::optional<ServerReport> connection;
  std::vector<delivery::ChannelStatistics> destinations;
};

/// 2026-11-22T01:02:03Z
std::string TimeText(WallTime time);

/// Lines for people; values cannot change the lines around them.
std::string FormatStatus(const StatusReport& report);

/// One line, not escaped, without a line end.
std::string FormatStatistics(const delivery::ChannelStatistics& statistics);

/// The status in a file that only its owner can read, replaced by a rename: when it changes, and once a minute, so that
/// a reader sees its age.
class StatusFile {
 public:
  explicit StatusFile(const std::filesystem::path& stateDirectory);
  /// Throws `std::system_error` when it cannot be written.
  void Write(const std::string& status, WallTime now);
  void Remove() const;

 private:
  std::filesystem::path m_file;
  std::string m_strLast;
  WallTime m_written;
};

/// Where an agent locks its state directory.
std::filesystem::path GetLockFile(const std::filesystem::path& stateDirectory);

/// Prints the status of the agent that runs on the state directory, and its age. Returns the program's exit status: 0
/// when an agent runs and its status is recent. Throws `std::system_error` when it cannot be read.
int RunCommand(const StatusCommand& command);

}  // namespace sorvex::agent
