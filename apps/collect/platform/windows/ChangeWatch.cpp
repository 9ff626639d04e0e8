#include <collect/platform/ChangeWatch.h>

#include <windows.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace sorvex::collect {

namespace {

class Event {
 public:
  Event() : m_event(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
    if (m_event == nullptr) {
      throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "CreateEvent");
    }
  }
  ~Event() { CloseHandle(m_event); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  HANDLE Get() const { return m_event; }

 private:
  HANDLE m_event;
};

}  // namespace

struct ChangeWatch::State {
  Event wake;
  std::shared_ptr<Event> input = std::make_shared<Event>();  ///< set when there may be standard input
};

ChangeWatch::ChangeWatch() : m_pState(std::make_unique<State>()) {}

ChangeWatch::~ChangeWatch() = default;

// For a folder this system reports changes as they are recorded there: a file's new size only when its writer closes
// it, which may be never. Only checking the files helps.
ChangeWatch::Answer ChangeWatch::Add(const std::filesystem::path&, int&) { return Answer::Unsupported; }

void ChangeWatch::Remove(int) {}

bool ChangeWatch::Take(std::vector<Change>&) { return true; }

bool ChangeWatch::Wait(std::chrono::milliseconds limit, bool, bool forInput) {
  const std::array<HANDLE, 2> waiting{m_pState->wake.Get(), m_pState->input->Get()};
  constexpr std::chrono::milliseconds longest = std::chrono::hours(1);
  const DWORD time = static_cast<DWORD>(std::clamp(limit, std::chrono::milliseconds(0), longest).count());
  return WaitForMultipleObjects(forInput ? 2 : 1, waiting.data(), FALSE, time) == WAIT_OBJECT_0;
}

void ChangeWatch::Wake() noexcept { SetEvent(m_pState->wake.Get()); }

/// Shared with the reading thread, which may still be inside its call when nobody listens any more.
struct StandardInput::State {
  std::shared_ptr<Event> arrived;
  std::mutex mutex;
  std::condition_variable hasRoom;
  std::string bytes;
  bool hasEnded = false;
  bool isAbandoned = false;
  std::error_code error;

  static constexpr std::size_t maxBytes = 1024 * 1024;

  void Run() {
    const HANDLE file = GetStdHandle(STD_INPUT_HANDLE);
    std::string block(64 * 1024, '\0');
    for (;;) {
      DWORD count = 0;
      const bool isRead = ReadFile(file, block.data(), static_cast<DWORD>(block.size()), &count, nullptr);
      const DWORD reason = GetLastError();
      std::unique_lock lock(mutex);
      if (!isRead || count == 0) {
        // A pipe whose writer has gone has ended.
        if (!isRead && reason != ERROR_BROKEN_PIPE && reason != ERROR_HANDLE_EOF) {
          error.assign(static_cast<int>(reason), std::system_category());
        }
        hasEnded = true;
        SetEvent(arrived->Get());
        return;
      }
      bytes.append(block.data(), count);
      SetEvent(arrived->Get());
      hasRoom.wait(lock, [this] { return isAbandoned || bytes.size() < maxBytes; });
      if (isAbandoned) return;
    }
  }
};

StandardInput::StandardInput(ChangeWatch& watch) : m_pState(std::make_shared<State>()) {
  m_pState->arrived = watch.m_pState->input;
  std::thread([pState = m_pState] { pState->Run(); }).detach();
}

StandardInput::~StandardInput() {
  const std::lock_guard lock(m_pState->mutex);
  m_pState->isAbandoned = true;
  m_pState->hasRoom.notify_one();
}

std::optional<std::size_t> StandardInput::Read(char* buffer, std::size_t size, std::error_code& error) {
  const std::lock_guard lock(m_pState->mutex);
  error = m_pState->error;
  if (m_pState->bytes.empty()) {
    if (m_pState->hasEnded) return std::nullopt;
    return 0;
  }
  error.clear();
  const std::size_t count = m_pState->bytes.copy(buffer, size);
  m_pState->bytes.erase(0, count);
  m_pState->hasRoom.notify_one();
  return count;
}

}  // namespace sorvex::collect
