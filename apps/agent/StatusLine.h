// A changing line of standard error that shows an operation's progress.
#pragma once

#include <schedule/StoppableThread.h>

#include <functional>
#include <string>

namespace sorvex::agent {

/// Shows the text twice a second until it is destroyed. Without a terminal it does nothing.
class StatusLine {
 public:
  /// `text` is called in another thread. It and what it uses outlive the line.
  explicit StatusLine(std::function<std::string()> text);

 private:
  void Show() const;

  std::function<std::string()> m_text;
  schedule::StoppableThread m_thread;  ///< last: it uses the others until it is joined
};

}  // namespace sorvex::agent
