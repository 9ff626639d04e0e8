// Standard input of the test program itself.
#pragma once

#include <memory>
#include <string_view>

namespace sorvex::collect {

/// Replaces standard input with a pipe during its lifetime.
class StandardInputPipe {
 public:
  StandardInputPipe();
  ~StandardInputPipe();
  StandardInputPipe(const StandardInputPipe&) = delete;
  StandardInputPipe& operator=(const StandardInputPipe&) = delete;

  /// Waits until all of it is in the pipe. Throws `std::runtime_error`.
  void Write(std::string_view bytes);
  void End();

 private:
  struct State;
  std::unique_ptr<State> m_pState;
};

}  // namespace sorvex::collect
