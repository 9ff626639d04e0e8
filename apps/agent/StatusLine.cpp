#include <StatusLine.h>

#include <platform/Platform.h>

#include <chrono>
#include <cstdio>
#include <utility>

namespace sorvex::agent {

using namespace std::chrono_literals;

StatusLine::StatusLine(std::function<std::string()> text) : m_text(std::move(text)) {
  if (!IsErrorTerminal()) return;
  m_thread.Start([this] {
    while (!m_thread.WaitForStop(500ms)) Show();
    Show();
    std::fputc('\n', stderr);
  });
}

void StatusLine::Show() const {
  std::fprintf(stderr, "\r%s   ", m_text().c_str());
  std::fflush(stderr);
}

}  // namespace sorvex::agent
