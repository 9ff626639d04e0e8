#include <StatusLine.h>

#include <platform/Platform.h>

#include <chrono>
#include <cstdio>
#include <stop_token>
#include <utility>

namespace sorvex::agent {

using namespace std::chrono_literals;

StatusLine::StatusLine(std::function<std::string()> text) : m_text(std::move(text)) {
  if (!IsErrorTerminal()) return;
  m_thread = std::jthread([this](std::stop_token stop) {
    std::unique_lock lock(m_mutex);
    while (!m_wakeUp.wait_for(lock, stop, 500ms, [&stop] { return stop.stop_requested(); })) Show();
    Show();
    std::fputc('\n', stderr);
  });
}

void StatusLine::Show() const {
  std::fprintf(stderr, "\r%s   ", m_text().c_str());
  std::fflush(stderr);
}

}  // namespace sorvex::agent
