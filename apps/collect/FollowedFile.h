// One followed file: its identity, and how far it was read and delivered.
#pragma once

#include <collect/Collector.h>
#include <collect/Positions.h>
#include <collect/platform/File.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>

namespace sorvex::collect {

struct FileInput;

/// The state of a file before it was truncated.
struct Generation {
  Place place;
  std::uint64_t read = 0;
  std::uint64_t source = 0;
  std::chrono::steady_clock::time_point endTime;
};

struct FollowedFile {
  std::uint64_t source = 0;  ///< its number in marks, a new one after each truncation
  Place place;               ///< `position` is how far it was taken
  std::uint64_t read = 0;    ///< how far it was passed on
  std::shared_ptr<const FileInput> pInput;

  std::unique_ptr<OpenedFile> pFile;  ///< null while it is closed
  std::list<FollowedFile*>::iterator openPlace;

  std::uint64_t seenSize = 0;
  std::int64_t seenModified = 0;
  std::chrono::steady_clock::time_point changeTime;  ///< when a change was last seen

  std::optional<Generation> before;  ///< its rest may be in a copy

  std::uint64_t waitsFor = 0;  ///< the file that had this name before, by its number, until that was read; or 0
  std::uint64_t listing = 0;   ///< the last listing that had it
  bool hasName = true;         ///< an input's pattern matches one of its names
  bool isPolled = false;       ///< nobody reports its changes
  bool isReady = false;        ///< in the queue of files to be read
  bool isAtEnd = false;        ///< everything was read except an unfinished line
  bool hasEnded = false;       ///< nothing more comes, so an unfinished line counts
  bool isRefused = false;      ///< its content is not to be sent
  bool isFailureLogged = false;
  bool isLongLineLogged = false;

  bool IsDelivered() const { return place.position == read; }
};

/// Extends `head` by the file's bytes from `offset` on, up to `position` and its greatest length.
void ExtendHead(Head& head, std::uint64_t offset, std::string_view bytes, std::uint64_t position);

/// Reads the head of an opened file.
Head ReadHead(const OpenedFile& file, std::uint64_t length, std::error_code& error);

/// Whether a file of this size still begins with that head.
bool HasHead(const OpenedFile& file, std::uint64_t size, const Head& head, std::error_code& error);

/// Whether both files hold the same up to `size`, judging by the head and the end.
bool IsSameSoFar(const OpenedFile& file, const OpenedFile& other, std::uint64_t size, std::error_code& error);

/// Where the unfinished last line begins; `size` when that is more than `maxBytes` before it.
std::uint64_t FindLastLineStart(const OpenedFile& file, std::uint64_t size, std::size_t maxBytes,
                                std::error_code& error);

/// Whether these are the first bytes of a compressed file: gzip, bzip2, xz, Zstandard, zip.
bool IsCompressed(std::string_view start);

}  // namespace sorvex::collect
