#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

extern char** environ;

namespace sorvex::test {
namespace {

[[noreturn]] void Throw(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : m_descriptor(descriptor) {}
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  void Reset(int descriptor) {
    Close();
    m_descriptor = descriptor;
  }
  void Close() {
    if (m_descriptor >= 0) close(std::exchange(m_descriptor, -1));
  }
  int Get() const { return m_descriptor; }

 private:
  int m_descriptor;
};

std::string ReadAll(int descriptor) {
  std::string text;
  std::array<char, 65536> part;
  for (;;) {
    const ssize_t count = pread(descriptor, part.data(), part.size(), static_cast<off_t>(text.size()));
    if (count < 0) Throw(errno, "pread");
    if (count == 0) return text;
    text.append(part.data(), static_cast<std::size_t>(count));
  }
}

}  // namespace

struct ChildProcess::State {
  Descriptor input;
  Descriptor output{memfd_create("output", MFD_CLOEXEC)};
  Descriptor errors{memfd_create("errors", MFD_CLOEXEC)};
  Descriptor handle;
  pid_t id = -1;
  std::optional<int> status;
};

ChildProcess::ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments)
    : m_pState(std::make_unique<State>()) {
  // A program that does not read its input must not end the test.
  signal(SIGPIPE, SIG_IGN);

  std::array<int, 2> inputPipe{};
  if (pipe2(inputPipe.data(), O_CLOEXEC) != 0) Throw(errno, "pipe2");
  const Descriptor childInput(inputPipe[0]);
  m_pState->input.Reset(inputPipe[1]);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, childInput.Get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, m_pState->output.Get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, m_pState->errors.Get(), STDERR_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

  std::vector<std::string> texts{program.string()};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  const int error = posix_spawn(&m_pState->id, program.c_str(), &actions, &attributes, pointers.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) Throw(error, program.string());
  // The C library of Debian 12 declares its own function for this in a way that C++ cannot link.
  m_pState->handle.Reset(static_cast<int>(syscall(SYS_pidfd_open, m_pState->id, 0)));
}

ChildProcess::~ChildProcess() {
  if (m_pState->status) return;
  kill(m_pState->id, SIGKILL);
  waitpid(m_pState->id, nullptr, 0);
}

bool ChildProcess::WriteInput(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(m_pState->input.Get(), text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

void ChildProcess::CloseInput() { m_pState->input.Close(); }

void ChildProcess::RequestEnd() {
  if (!m_pState->status) kill(m_pState->id, SIGTERM);
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds limit) {
  if (m_pState->status) return m_pState->status;
  pollfd waiting{m_pState->handle.Get(), POLLIN, 0};
  if (poll(&waiting, 1, static_cast<int>(limit.count())) != 1) return std::nullopt;
  int status = 0;
  if (waitpid(m_pState->id, &status, 0) != m_pState->id) Throw(errno, "waitpid");
  m_pState->status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  return m_pState->status;
}

std::string ChildProcess::Output() const { return ReadAll(m_pState->output.Get()); }
std::string ChildProcess::Errors() const { return ReadAll(m_pState->errors.Get()); }
long ChildProcess::Id() const { return m_pState->id; }

}  // namespace sorvex::test
