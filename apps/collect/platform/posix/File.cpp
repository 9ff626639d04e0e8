#include <collect/platform/File.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace sorvex::collect {
namespace {

FileStatus ReadStatus(int folder, const char* path, int flags, std::error_code& error) {
  struct statx native {};
  constexpr unsigned int wanted = STATX_BASIC_STATS | STATX_BTIME;
  if (statx(folder, path, flags, wanted, &native) != 0) {
    error.assign(errno, std::generic_category());
    return {};
  }
  error.clear();
  constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
  FileStatus status;
  status.identity.volume = makedev(native.stx_dev_major, native.stx_dev_minor);
  status.identity.index = native.stx_ino;
  if ((native.stx_mask & STATX_BTIME) != 0) {
    status.identity.birth =
        static_cast<std::uint64_t>(native.stx_btime.tv_sec) * nanosecondsPerSecond + native.stx_btime.tv_nsec;
  }
  status.isRegular = S_ISREG(native.stx_mode);
  status.isFolder = S_ISDIR(native.stx_mode);
  status.hasName = native.stx_nlink > 0;
  status.size = native.stx_size;
  status.modified = static_cast<std::int64_t>(
      static_cast<std::uint64_t>(native.stx_mtime.tv_sec) * nanosecondsPerSecond + native.stx_mtime.tv_nsec);
  return status;
}

}  // namespace

FileStatus GetFileStatus(const std::filesystem::path& path, std::error_code& error) {
  return ReadStatus(AT_FDCWD, path.c_str(), 0, error);
}

struct OpenedFile::Handle {
  explicit Handle(int opened) : descriptor(opened) {}
  ~Handle() { close(descriptor); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const int descriptor;
};

OpenedFile::OpenedFile(std::unique_ptr<Handle> pHandle) : m_pHandle(std::move(pHandle)) {}

OpenedFile::~OpenedFile() = default;

std::unique_ptr<OpenedFile> OpenedFile::Open(const std::filesystem::path& path, std::error_code& error) {
  // Without O_NONBLOCK a pipe of that name would block the caller until someone writes to it.
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (descriptor < 0) {
    error.assign(errno, std::generic_category());
    return nullptr;
  }
  std::unique_ptr<OpenedFile> pFile(new OpenedFile(std::make_unique<Handle>(descriptor)));
  const FileStatus status = pFile->GetStatus(error);
  if (!error && !status.isRegular) error = std::make_error_code(std::errc::not_supported);
  return error ? nullptr : std::move(pFile);
}

FileStatus OpenedFile::GetStatus(std::error_code& error) const {
  return ReadStatus(m_pHandle->descriptor, "", AT_EMPTY_PATH, error);
}

std::size_t OpenedFile::ReadAt(std::uint64_t offset, char* buffer, std::size_t size, std::error_code& error) const {
  error.clear();
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = pread(m_pHandle->descriptor, buffer + done, size - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) error.assign(errno, std::generic_category());
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  return done;
}

std::string PathToText(const std::filesystem::path& path) { return path.native(); }

std::filesystem::path TextToPath(std::string_view text) { return text; }

char32_t FoldCase(char32_t character) { return character; }

}  // namespace sorvex::collect
