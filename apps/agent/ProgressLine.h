// What a terminal shows while events are sent.
#pragma once

#include <Outlet.h>
#include <StatusLine.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace sorvex::agent {

/// Shows the progress on one line of standard error, twice a second, until it is destroyed. Without a terminal it does
/// nothing.
class ProgressLine {
 public:
  /// Both outlive the line.
  ProgressLine(const std::vector<std::unique_ptr<Outlet>>& outlets, const Counter& eventsRead);

 private:
  std::string Text() const;

  const std::vector<std::unique_ptr<Outlet>>& m_outlets;
  const Counter& m_eventsRead;
  StatusLine m_line;  ///< last: it uses the others
};

}  // namespace sorvex::agent
