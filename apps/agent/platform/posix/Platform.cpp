#include <platform/Platform.h>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <system_error>

namespace sorvex::agent {
namespace {

// A byte in this pipe, never read, ends all reading; waiting for input also waits for it.
std::array<int, 2> endOfReadingPipe{-1, -1};
// A byte in this one ends the wait for an interrupt, which consumes it.
std::array<int, 2> wakeUpPipe{-1, -1};
std::atomic<bool> interrupted{false};
std::atomic<bool> readingStopped{false};
static_assert(std::atomic<bool>::is_always_lock_free, "written by a signal handler");

void NoteInterrupt(int) {
  const int savedErrno = errno;
  Interrupt();
  errno = savedErrno;
}

/// Opens a placeholder for each standard descriptor that the caller left closed: otherwise the next file or connection
/// would take its number. Using it fails as using the closed one would.
void OccupyStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) == -1) open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

[[noreturn]] void ThrowErrno(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

}  // namespace

std::filesystem::path ArgumentToPath(const std::string& argument) { return argument; }

std::filesystem::path GetProgramDirectory() { return std::filesystem::read_symlink("/proc/self/exe").parent_path(); }

std::filesystem::path GetDefaultStateDirectory() { return "/var/lib/sorvex-agent"; }

long GetProcessNumber() { return getpid(); }

std::string GetHostName() {
  std::array<char, 256> name{};
  if (gethostname(name.data(), name.size() - 1) != 0) return "localhost";
  return name.data();
}

bool IsErrorTerminal() { return isatty(STDERR_FILENO) == 1; }

void InstallInterruptHandler() {
  for (std::array<int, 2>* const ends : {&endOfReadingPipe, &wakeUpPipe}) {
    if (pipe2(ends->data(), O_CLOEXEC | O_NONBLOCK) != 0) ThrowErrno("pipe");
  }
  struct sigaction action {};
  action.sa_handler = NoteInterrupt;
  // The module's own system calls are restarted. A second signal has the default action.
  action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
  sigemptyset(&action.sa_mask);
  for (const int number : {SIGINT, SIGTERM}) {
    if (sigaction(number, &action, nullptr) != 0) ThrowErrno("sigaction");
  }
}

void WipeMemory(void* data, std::size_t size) { OPENSSL_cleanse(data, size); }

bool IsInterrupted() { return interrupted.load(std::memory_order_relaxed); }

// Also called by the signal handler.
void Interrupt() {
  interrupted.store(true);
  StopReading();
  EndWaitForInterrupt();
}

void WaitForInterrupt() {
  std::array<char, 16> taken{};
  pollfd waiting{wakeUpPipe[0], POLLIN, 0};
  while (!interrupted.load() && poll(&waiting, 1, -1) < 0 && errno == EINTR) {
  }
  [[maybe_unused]] const ssize_t count = read(wakeUpPipe[0], taken.data(), taken.size());
}

void EndWaitForInterrupt() { [[maybe_unused]] const ssize_t written = write(wakeUpPipe[1], "!", 1); }

// Also called by the signal handler.
void StopReading() {
  readingStopped.store(true);
  [[maybe_unused]] const ssize_t written = write(endOfReadingPipe[1], "!", 1);
}

void EndProcess(int status) { _exit(status); }

struct InputFile::Handle {
  int descriptor = STDIN_FILENO;
  std::string name = "standard input";
};

InputFile::InputFile() : m_pHandle(std::make_unique<Handle>()) {
  // A write-only one is our own placeholder for a closed one.
  const int flags = fcntl(m_pHandle->descriptor, F_GETFL);
  if (flags != -1 && (flags & O_ACCMODE) != O_WRONLY) return;
  errno = EBADF;
  ThrowErrno(m_pHandle->name);
}

InputFile::InputFile(const std::filesystem::path& path) {
  // A pipe without a writer makes `Read` wait, which can be stopped, but not this call.
  const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) ThrowErrno(path.string());
  m_pHandle = std::make_unique<Handle>(Handle{descriptor, path.string()});
}

InputFile::~InputFile() {
  if (m_pHandle->descriptor != STDIN_FILENO) close(m_pHandle->descriptor);
}

std::optional<std::size_t> InputFile::Read(char* buffer, std::size_t size) {
  while (!readingStopped.load()) {
    std::array<pollfd, 2> waiting{pollfd{m_pHandle->descriptor, POLLIN, 0}, pollfd{endOfReadingPipe[0], POLLIN, 0}};
    if (poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) ThrowErrno("poll");
    if (waiting[0].revents == 0 || waiting[1].revents != 0) continue;
    const ssize_t count = read(m_pHandle->descriptor, buffer, size);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR && errno != EAGAIN) ThrowErrno(m_pHandle->name);
  }
  return std::nullopt;
}

}  // namespace sorvex::agent

int main(int argc, char** argv) {
  sorvex::agent::OccupyStandardDescriptors();
  // When a reader of our output or a peer goes away, that operation fails; the program does not end.
  signal(SIGPIPE, SIG_IGN);
  return sorvex::agent::RunAgent(argc > 0 ? std::vector<std::string>(argv + 1, argv + argc)
                                          : std::vector<std::string>());
}
