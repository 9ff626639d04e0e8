// The files of all inputs: which exist, which have changed, and their lines.
#pragma once

#include <collect/Collector.h>
#include <collect/FollowedFile.h>
#include <collect/Pattern.h>
#include <collect/Positions.h>
#include <collect/Turn.h>
#include <collect/platform/ChangeWatch.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace sorvex::collect {

/// An input that names files.
struct FileInput {
  InputSettings settings;
  Pattern pattern;
};

struct IdentityHash {
  std::size_t operator()(const FileIdentity& identity) const {
    return static_cast<std::size_t>((identity.index ^ identity.volume << 40U) * 0x9E3779B97F4A7C15);
  }
};

/// One thread.
class Follower {
 public:
  /// `nextSource` numbers the sources. All references outlive the follower.
  Follower(ChangeWatch& watch, const Log& log, const Limits& limits, std::uint64_t& nextSource, Positions positions);
  ~Follower();

  /// Inputs of other kinds are left out.
  void SetInputs(const std::vector<InputSettings>& inputs);

  /// Learns what has changed, from the system, by listing folders and by checking files. Returns true when the
  /// positions must be saved before anything else: they record where a new input begins, or have become old.
  bool Update();

  Turn HandOut(LineSink& sink);

  void Taken(Mark mark);
  void Rewind();

  std::string GetName(std::uint64_t source) const;

  /// Whether there is a file to be read.
  bool IsReady() const { return !m_ready.empty(); }

  /// When `Update` has something to do on its own.
  std::chrono::steady_clock::time_point NextDue() const;

  /// Whether the positions differ from those last marked as saved, or those have become old.
  bool HasChangedPositions() const { return m_bPositionsChanged; }
  std::string WritePositions() const;
  void MarkSaved();

 private:
  using Time = std::chrono::steady_clock::time_point;
  using NativeString = std::filesystem::path::string_type;
  template <class Value>
  using ByIdentity = std::unordered_map<FileIdentity, Value, IdentityHash>;

  /// A name that an input's pattern matches, with its target.
  struct Seen {
    std::filesystem::path path;
    std::shared_ptr<const FileInput> pInput;
    FileStatus status;
    bool isPolled = false;
  };

  /// A file that looks like a copy of a followed one whose original may be about to be truncated.
  struct Held {
    std::uint64_t size = 0;
    Time changeTime;
  };

  /// A file that is no longer followed, with lines handed out but not yet taken.
  struct Departed {
    std::uint64_t source = 0;
    std::uint64_t read = 0;
  };

  /// The results of one listing.
  struct Listing {
    std::vector<Seen> seen;
    std::unordered_map<NativeString, std::string> troubles;
    /// Names whose file has another name now, or none.
    std::unordered_map<NativeString, const FollowedFile*> left;
    /// The content of the folders that were searched.
    std::unordered_map<NativeString, ByIdentity<std::filesystem::path>> folders;
    std::unordered_map<NativeString, Held> held;
    bool isIncomplete = false;  ///< something should be tried again soon
  };

  void TakeChanges();
  FollowedFile* FindFile(const std::filesystem::path& path) const;
  bool Concerns(const std::filesystem::path& path) const;
  void ListFiles();
  void FindNames(Listing& listing);
  void WatchPaths(const std::vector<std::filesystem::path>& folders, Listing& listing);
  bool WatchPath(const std::filesystem::path& path, Listing& listing,
                 std::unordered_map<int, std::vector<std::filesystem::path>>& watches);
  void FollowNames(Listing& listing);
  void Leave(FollowedFile& file, Listing& listing);
  void Adopt(const Seen& seen, Listing& listing);
  std::optional<Generation> TakeSaved(const Seen& seen);
  Generation Return(const Place& place);
  std::vector<FollowedFile*> FindOriginals(const std::filesystem::path& path) const;
  std::optional<Generation> TakeRest(FollowedFile& original, const OpenedFile& copy);
  bool IsToBeHeld(FollowedFile& original, const Seen& seen, const OpenedFile& copy, Listing& listing);
  void AdoptRotated(Listing& listing);
  std::unique_ptr<OpenedFile> FindOpened(const std::filesystem::path& folder, const FileIdentity& identity,
                                         Listing& listing) const;
  void ForgetOld();
  void AddTrouble(const std::filesystem::path& path, const std::string& text, Listing& listing);

  FollowedFile& Add(const FileIdentity& identity, const std::filesystem::path& path,
                    std::shared_ptr<const FileInput> pInput, std::unique_ptr<OpenedFile> pFile);
  void Drop(FollowedFile& file);
  void SetOpen(FollowedFile& file, std::unique_ptr<OpenedFile> pFile);
  void Close(FollowedFile& file);
  void CloseUnused();
  bool EnsureOpen(FollowedFile& file);
  bool Look(FollowedFile& file);
  void Fail(FollowedFile& file, const std::error_code& error);
  void Truncate(FollowedFile& file);
  void SetSource(FollowedFile& file, std::uint64_t source);
  void TakenOfDeparted(Mark mark);
  void MarkReady(FollowedFile& file);
  void LookAtPolled();
  void LookAtRotated();
  bool HasToWait(FollowedFile& file) const;
  Turn HandOut(FollowedFile& file, LineSink& sink);
  bool ReadBlock(FollowedFile& file);

  ChangeWatch& m_watch;
  const Log& m_log;
  const Limits& m_limits;
  std::uint64_t& m_nextSource;

  std::vector<std::shared_ptr<const FileInput>> m_inputs;
  std::unordered_set<std::string> m_knownPatterns;  ///< inputs whose files were listed before
  ByIdentity<Place> m_saved;                        ///< files that are not followed now
  std::unordered_map<NativeString, FileIdentity> m_savedPaths;
  ByIdentity<Departed> m_departed;  ///< of those in `m_saved`

  ByIdentity<std::unique_ptr<FollowedFile>> m_files;
  std::unordered_map<NativeString, FollowedFile*> m_byPath;     ///< those that have a name
  std::unordered_map<NativeString, FileIdentity> m_otherNames;  ///< further names of files that have one
  std::unordered_map<std::uint64_t, FollowedFile*> m_bySource;
  std::unordered_set<FollowedFile*> m_rotated;  ///< checked until they have ended
  std::list<FollowedFile*> m_open;              ///< the one that changed last comes last
  std::deque<FollowedFile*> m_ready;            ///< to be read

  std::unordered_map<int, std::vector<std::filesystem::path>> m_watches;
  std::vector<ChangeWatch::Change> m_changes;
  std::unordered_map<NativeString, std::string> m_troubles;
  std::unordered_map<NativeString, Held> m_held;
  bool m_bWatchLimitLogged = false;

  bool m_bListingWanted = false;
  bool m_bRotatedSought = false;  ///< renamed while nobody followed it
  bool m_bHasPolled = false;
  std::uint64_t m_listing = 0;
  Time m_nextListing;     ///< in any case
  Time m_listingAllowed;  ///< not before
  Time m_nextPoll;

  std::vector<char> m_buffer;
  /// The buffer's content, until all of its lines are passed on.
  struct Block {
    std::uint64_t source = 0;
    std::uint64_t offset = 0;
    std::size_t size = 0;
    bool isLast = false;  ///< the file ended there
  } m_block;

  bool m_bPositionsChanged = false;
  Time m_nextSave = m_limits.now() + m_limits.saveInterval;
  bool m_bSaveNow = false;
};

}  // namespace sorvex::collect
