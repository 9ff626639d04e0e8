#include "StandardInputPipe.h"

#include <windows.h>

#include <stdexcept>
#include <utility>

namespace sorvex::collect {

struct StandardInputPipe::State {
  HANDLE before = GetStdHandle(STD_INPUT_HANDLE);
  HANDLE writeEnd = nullptr;
};

StandardInputPipe::StandardInputPipe() : m_pState(std::make_unique<State>()) {
  // The reading end stays open: a thread may still be reading there.
  HANDLE readEnd = nullptr;
  if (!CreatePipe(&readEnd, &m_pState->writeEnd, nullptr, 0)) throw std::runtime_error("CreatePipe");
  SetStdHandle(STD_INPUT_HANDLE, readEnd);
}

StandardInputPipe::~StandardInputPipe() {
  End();
  SetStdHandle(STD_INPUT_HANDLE, m_pState->before);
}

void StandardInputPipe::Write(std::string_view bytes) {
  DWORD count = 0;
  if (!WriteFile(m_pState->writeEnd, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr) ||
      count != bytes.size()) {
    throw std::runtime_error("WriteFile");
  }
}

void StandardInputPipe::End() {
  if (m_pState->writeEnd != nullptr) CloseHandle(std::exchange(m_pState->writeEnd, nullptr));
}

}  // namespace sorvex::collect
