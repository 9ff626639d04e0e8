#include <StatusReport.h>

#include <FileContent.h>
#include <Output.h>
#include <platform/InstanceLock.h>
#include <platform/Platform.h>

#include <shared/platform/FileReplacement.h>

#include <host/Log.h>
#include <host/Text.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <utility>

namespace sorvex::agent {
namespace {

using namespace std::chrono_literals;

constexpr auto rewriteInterval = 60s;

/// A working agent writes a status within this time.
constexpr auto longestAge = 150s;

constexpr std::size_t maxStatusBytes = 16 * 1024 * 1024;

std::int64_t ToSeconds(WallTime time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

std::filesystem::path GetStatusFile(const std::filesystem::path& stateDirectory) { return stateDirectory / "status"; }

std::string Escape(std::string_view text) {
  const WindowsAgentCommon::LogArgument argument(text);
  return WindowsAgentCommon::FormatText("%s", &argument, 1, true);
}

void AddLine(std::string& text, const char* name, const std::string& value) {
  text += WindowsAgentCommon::Format("%-15s %s\n", name, Escape(value));
}

std::string ConnectedText(const delivery::ChannelStatistics& statistics) {
  if (!statistics.isConnected) return "not connected";
  return statistics.connectedSince ? TimeText(*statistics.connectedSince) : "open";
}

void AddConnection(std::string& text, const ServerReport& connection) {
  const bool isKnown = connection.reached || connection.awaySince;
  AddLine(text, "connection",
          !isKnown               ? "not used yet"
          : connection.awaySince ? "failing since " + TimeText(*connection.awaySince)
                                 : "in order, last used " + TimeText(*connection.reached));
  AddLine(text, "registered", connection.isRegistered ? "yes" : "no");
  if (connection.errorText.empty()) return;
  AddLine(text, "last-error", std::to_string(connection.errorCode) + " " + connection.errorText);
}

void AddDestinations(std::string& text, const std::vector<delivery::ChannelStatistics>& destinations) {
  std::vector<std::array<std::string, 7>> rows{
      {"destination", "submitted", "sent", "queued", "truncated", "dropped", "connected since"}};
  for (const delivery::ChannelStatistics& statistics : destinations) {
    rows.push_back({Escape(statistics.url), std::to_string(statistics.submitted), std::to_string(statistics.sent),
                    std::to_string(statistics.queued), std::to_string(statistics.truncated),
                    std::to_string(statistics.dropped), ConnectedText(statistics)});
  }
  std::array<int, 6> widths{};
  for (const auto& row : rows) {
    for (std::size_t column = 0; column < widths.size(); ++column) {
      widths[column] = std::max(widths[column], static_cast<int>(row[column].size()));
    }
  }
  for (const auto& row : rows) {
    text += WindowsAgentCommon::Format("%-*s", widths[0], row[0]);
    for (std::size_t column = 1; column < widths.size(); ++column) {
      text += WindowsAgentCommon::Format("  %*s", widths[column], row[column]);
    }
    text += "  " + row.back() + "\n";
  }
}

}  // namespace

std::string TimeText(WallTime time) {
  const std::chrono::sys_seconds seconds = std::chrono::floor<std::chrono::seconds>(time);
  const std::chrono::sys_days day = std::chrono::floor<std::chrono::days>(seconds);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(seconds - day);
  return WindowsAgentCommon::Format("%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                                    static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                                    static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                                    static_cast<int>(clock.seconds().count()));
}

std::string FormatStatus(const StatusReport& report) {
  std::string text;
  AddLine(text, "agent", "process " + std::to_string(GetProcessNumber()) + ", since " + TimeText(report.started));
  AddLine(text, "mode", report.mode);
  AddLine(text, "configuration",
          report.digest.empty() ? "none" : report.digest + ", applied " + TimeText(report.applied));
  if (!report.refused.empty()) AddLine(text, "refused", report.refused);
  if (!report.server.empty()) AddLine(text, "server", report.server);
  if (report.connection) AddConnection(text, *report.connection);
  text += "\n";
  AddDestinations(text, report.destinations);
  return text;
}

std::string FormatStatistics(const delivery::ChannelStatistics& statistics) {
  return statistics.url + ": submitted " + std::to_string(statistics.submitted) + ", sent " +
         std::to_string(statistics.sent) + ", queued " + std::to_string(statistics.queued) + ", truncated " +
         std::to_string(statistics.truncated) + ", dropped " + std::to_string(statistics.dropped) +
         ", connected since " + ConnectedText(statistics);
}

StatusFile::StatusFile(const std::filesystem::path& stateDirectory) : m_file(GetStatusFile(stateDirectory)) {}

void StatusFile::Write(const std::string& status, WallTime now) {
  const bool isDue = now >= m_written + rewriteInterval || now < m_written;
  if (status == m_strLast && !isDue) return;
  // A status that may be a minute old need not wait for the disk.
  FileReplacement file(m_file, FileReplacement::Readers::Owner);
  file.Write(std::to_string(ToSeconds(now)) + "\n" + status);
  file.Commit();
  m_strLast = status;
  m_written = now;
}

void StatusFile::Remove() const {
  std::error_code ignored;
  std::filesystem::remove(m_file, ignored);
}

std::filesystem::path GetLockFile(const std::filesystem::path& stateDirectory) { return stateDirectory / "lock"; }

int RunCommand(const StatusCommand& command) {
  if (!InstanceLock::IsHeld(GetLockFile(command.stateDirectory))) {
    PrintError("no agent runs on " +
               WindowsAgentCommon::WideToUtf8(WindowsAgentCommon::PathToWide(command.stateDirectory)));
    return 1;
  }
  const std::string content = ReadFileContent(GetStatusFile(command.stateDirectory), maxStatusBytes);
  std::int64_t written = 0;
  const auto [end, error] = std::from_chars(content.data(), content.data() + content.size(), written);
  if (error != std::errc() || *end != '\n') {
    PrintError("the status of the agent cannot be read");
    return 1;
  }
  const std::int64_t age = ToSeconds(std::chrono::system_clock::now()) - written;
  for (std::string_view rest = std::string_view(content).substr(static_cast<std::size_t>(end - content.data()) + 1);
       !rest.empty();) {
    const std::size_t length = std::min(rest.find('\n'), rest.size() - 1);
    // Its backslashes are those of its values, which are escaped.
    std::fwrite(rest.data(), 1, length + 1, stdout);
    rest.remove_prefix(length + 1);
  }
  std::printf("\nas of %lld seconds ago\n", static_cast<long long>(age));
  if (age <= std::chrono::seconds(longestAge).count()) return 0;
  PrintError("this is out of date: the agent is stuck");
  return 1;
}

}  // namespace sorvex::agent
