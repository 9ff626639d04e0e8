#include "StandardInputPipe.h"

#include <unistd.h>

#include <array>
#include <stdexcept>
#include <utility>

namespace sorvex::collect {

struct StandardInputPipe::State {
  int before = dup(STDIN_FILENO);
  int writeEnd = -1;
};

StandardInputPipe::StandardInputPipe() : m_pState(std::make_unique<State>()) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) throw std::runtime_error("pipe");
  dup2(ends[0], STDIN_FILENO);
  close(ends[0]);
  m_pState->writeEnd = ends[1];
}

StandardInputPipe::~StandardInputPipe() {
  End();
  dup2(m_pState->before, STDIN_FILENO);
  close(m_pState->before);
}

void StandardInputPipe::Write(std::string_view bytes) {
  if (write(m_pState->writeEnd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    throw std::runtime_error("write");
  }
}

void StandardInputPipe::End() {
  if (m_pState->writeEnd >= 0) close(std::exchange(m_pState->writeEnd, -1));
}

}  // namespace sorvex::collect
