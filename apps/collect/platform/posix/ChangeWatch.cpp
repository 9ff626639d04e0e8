#include <collect/platform/ChangeWatch.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace sorvex::collect {
namespace {

constexpr std::uint32_t listingEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB |
                                        IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;
constexpr std::uint32_t wantedEvents =
    IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

/// Whether other machines or programs may change files there without this system's knowledge. Numbers from statfs(2).
bool IsRemote(const std::filesystem::path& path) {
  struct statfs status {};
  if (statfs(path.c_str(), &status) != 0) return false;
  constexpr std::array<std::uint32_t, 10> remoteTypes{
      0x6969,      // NFS
      0x517B,      // SMB
      0xFF534D42,  // CIFS
      0xFE534D42,  // SMB 2
      0x65735546,  // FUSE
      0x01021997,  // 9P
      0x00C36400,  // Ceph
      0x5346414F,  // AFS
      0x73757245,  // Coda
      0x0BD00BD0,  // Lustre
  };
  return std::find(remoteTypes.begin(), remoteTypes.end(), static_cast<std::uint32_t>(status.f_type)) !=
         remoteTypes.end();
}

}  // namespace

struct ChangeWatch::State {
  int wakeDescriptor = -1;
  int changeDescriptor = -1;  ///< -1: none needed so far, or the system has none left

  ~State() {
    if (wakeDescriptor >= 0) close(wakeDescriptor);
    if (changeDescriptor >= 0) close(changeDescriptor);
  }
};

ChangeWatch::ChangeWatch() : m_pState(std::make_unique<State>()) {
  m_pState->wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_pState->wakeDescriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

ChangeWatch::~ChangeWatch() = default;

ChangeWatch::Answer ChangeWatch::Add(const std::filesystem::path& path, int& number) {
  if (IsRemote(path)) return Answer::Unsupported;
  // A user has few of them, and an agent that follows no files needs none.
  if (m_pState->changeDescriptor < 0) m_pState->changeDescriptor = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (m_pState->changeDescriptor < 0) return Answer::LimitReached;
  number = inotify_add_watch(m_pState->changeDescriptor, path.c_str(), wantedEvents);
  if (number >= 0) return Answer::Watched;
  return errno == ENOSPC || errno == ENOMEM ? Answer::LimitReached : Answer::Failed;
}

void ChangeWatch::Remove(int number) { inotify_rm_watch(m_pState->changeDescriptor, number); }

bool ChangeWatch::Take(std::vector<Change>& changes) {
  bool isWhole = true;
  if (m_pState->changeDescriptor < 0) return isWhole;
  alignas(inotify_event) std::array<char, 64 * 1024> buffer;
  for (;;) {
    const ssize_t count = read(m_pState->changeDescriptor, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return isWhole;
    const char* const end = buffer.data() + count;
    for (const char* place = buffer.data(); place < end;) {
      inotify_event event{};
      std::memcpy(&event, place, sizeof event);
      const char* const name = place + sizeof event;
      place = name + event.len;
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        isWhole = false;
      } else {
        changes.push_back({event.wd, event.len == 0 ? "" : name, (event.mask & listingEvents) != 0});
      }
    }
  }
}

bool ChangeWatch::Wait(std::chrono::milliseconds limit, bool forChanges, bool forInput) {
  // A negative number excludes those that are not waited for.
  std::array<pollfd, 3> waiting{pollfd{m_pState->wakeDescriptor, POLLIN, 0},
                                pollfd{forChanges ? m_pState->changeDescriptor : -1, POLLIN, 0},
                                pollfd{forInput ? STDIN_FILENO : -1, POLLIN, 0}};
  constexpr std::chrono::milliseconds longest = std::chrono::hours(1);
  const int time = static_cast<int>(std::clamp(limit, std::chrono::milliseconds(0), longest).count());
  poll(waiting.data(), waiting.size(), time);
  std::uint64_t count = 0;
  return read(m_pState->wakeDescriptor, &count, sizeof count) > 0;
}

void ChangeWatch::Wake() noexcept {
  const int savedErrno = errno;
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(m_pState->wakeDescriptor, &one, sizeof one);
  errno = savedErrno;
}

struct StandardInput::State {};

StandardInput::StandardInput(ChangeWatch&) {}

StandardInput::~StandardInput() = default;

std::optional<std::size_t> StandardInput::Read(char* buffer, std::size_t size, std::error_code& error) {
  error.clear();
  // Other programs may share the descriptor, so it must not be made non-blocking.
  pollfd waiting{STDIN_FILENO, POLLIN, 0};
  if (poll(&waiting, 1, 0) <= 0 || waiting.revents == 0) return 0;
  const ssize_t count = read(STDIN_FILENO, buffer, size);
  if (count > 0) return static_cast<std::size_t>(count);
  if (count == 0) return std::nullopt;
  if (errno == EINTR || errno == EAGAIN) return 0;
  error.assign(errno, std::generic_category());
  return std::nullopt;
}

}  // namespace sorvex::collect
