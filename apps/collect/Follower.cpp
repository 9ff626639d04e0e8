#include <collect/Follower.h>

#include <collect/Lines.h>

#include <algorithm>
#include <string_view>
#include <system_error>
#include <utility>

namespace sorvex::collect {
namespace {

/// A listing is repeated only after this many times its duration.
constexpr int listingPause = 10;

/// A path for the log: one line, whatever its bytes.
std::string Printable(const std::filesystem::path& path) {
  std::string text = PathToText(path);
  std::replace_if(
      text.begin(), text.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7F; }, '?');
  return text;
}

bool IsMissing(const std::error_code& error) {
  return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
}

}  // namespace

Follower::Follower(ChangeWatch& watch, const Log& log, const Limits& limits, std::uint64_t& nextSource,
                   Positions positions)
    : m_watch(watch), m_log(log), m_limits(limits), m_nextSource(nextSource) {
  m_knownPatterns.insert(positions.patterns.begin(), positions.patterns.end());
  for (Place& place : positions.places) {
    m_savedPaths.insert_or_assign(place.path.native(), place.identity);
    m_saved.insert_or_assign(place.identity, std::move(place));
  }
}

Follower::~Follower() = default;

void Follower::SetInputs(const std::vector<InputSettings>& inputs) {
  std::unordered_set<std::string> known;
  std::size_t bufferSize = turnBytes;
  m_inputs.clear();
  for (const InputSettings& settings : inputs) {
    if (settings.kind != InputSettings::Kind::Files) continue;
    if (settings.pattern.empty()) {
      m_log(Severity::Warning, "an input names no file");
      continue;
    }
    m_inputs.push_back(std::make_shared<const FileInput>(
        FileInput{settings, Pattern(std::filesystem::absolute(TextToPath(settings.pattern)))}));
    if (m_knownPatterns.contains(settings.pattern)) known.insert(settings.pattern);
    bufferSize = std::max(bufferSize, BytesToTell(settings.maxLineBytes));
  }
  m_bPositionsChanged = m_bPositionsChanged || known.size() != m_knownPatterns.size();
  m_knownPatterns = std::move(known);
  m_block = {};
  m_buffer = {};
  m_buffer.resize(bufferSize);
  m_nextListing = m_limits.now();
  m_listingAllowed = m_nextListing;
  m_bRotatedSought = false;
}

bool Follower::Update() {
  TakeChanges();
  const Time now = m_limits.now();
  if (now >= m_nextListing || (m_bListingWanted && now >= m_listingAllowed)) ListFiles();
  if ((m_bHasPolled || !m_rotated.empty()) && now >= m_nextPoll) {
    m_nextPoll = now + m_limits.pollInterval;
    if (m_bHasPolled) LookAtPolled();
    LookAtRotated();
  }
  if (now >= m_nextSave) {
    // The positions also tell when files were last there. If this save fails, the next change causes another.
    m_nextSave = now + m_limits.saveInterval;
    m_bPositionsChanged = m_bSaveNow = true;
  }
  return std::exchange(m_bSaveNow, false);
}

Follower::Time Follower::NextDue() const {
  Time due = m_nextListing;
  if (m_bListingWanted) due = std::min(due, m_listingAllowed);
  if (m_bHasPolled || !m_rotated.empty()) due = std::min(due, m_nextPoll);
  return due;
}

void Follower::TakeChanges() {
  m_changes.clear();
  if (!m_watch.Take(m_changes)) m_bListingWanted = true;
  for (const ChangeWatch::Change& change : m_changes) {
    const auto watched = m_watches.find(change.number);
    if (watched == m_watches.end()) continue;
    for (const std::filesystem::path& base : watched->second) {
      const std::filesystem::path path = change.name.empty() ? base : base / change.name;
      FollowedFile* const pFile = FindFile(path);
      if (pFile != nullptr) MarkReady(*pFile);
      // A file that was written and is not followed may match now.
      const bool isListing = change.isListing || pFile == nullptr;
      if (isListing && (change.name.empty() || pFile != nullptr || Concerns(path))) m_bListingWanted = true;
    }
  }
}

FollowedFile* Follower::FindFile(const std::filesystem::path& path) const {
  const auto named = m_byPath.find(path.native());
  if (named != m_byPath.end()) return named->second;
  const auto other = m_otherNames.find(path.native());
  if (other == m_otherNames.end()) return nullptr;
  const auto file = m_files.find(other->second);
  return file == m_files.end() ? nullptr : file->second.get();
}

bool Follower::Concerns(const std::filesystem::path& path) const {
  return std::any_of(m_inputs.begin(), m_inputs.end(),
                     [&path](const auto& pInput) { return pInput->pattern.Concerns(path); });
}

void Follower::ListFiles() {
  const Time start = m_limits.now();
  m_bListingWanted = false;
  ++m_listing;
  Listing listing;
  FindNames(listing);
  FollowNames(listing);
  if (!std::exchange(m_bRotatedSought, true)) AdoptRotated(listing);
  for (const auto& pInput : m_inputs) {
    if (m_knownPatterns.insert(pInput->settings.pattern).second) m_bPositionsChanged = m_bSaveNow = true;
  }
  ForgetOld();
  CloseUnused();
  m_troubles = std::move(listing.troubles);
  m_held = std::move(listing.held);

  const Time end = m_limits.now();
  const bool isSoon = m_bHasPolled || listing.isIncomplete;
  m_nextListing = end + (isSoon ? m_limits.pollListInterval : m_limits.listInterval);
  m_listingAllowed = end + (end - start) * listingPause;
}

void Follower::AddTrouble(const std::filesystem::path& path, const std::string& text, Listing& listing) {
  const auto known = m_troubles.find(path.native());
  if (known == m_troubles.end() || known->second != text) {
    m_log(Severity::Warning, Printable(path) + ": " + text);
  }
  listing.troubles.insert_or_assign(path.native(), text);
}

void Follower::FindNames(Listing& listing) {
  Pattern::Listing found;
  std::unordered_set<NativeString> paths;
  for (const auto& pInput : m_inputs) {
    const std::size_t before = found.names.size();
    pInput->pattern.List(found);
    for (std::size_t index = before; index < found.names.size(); ++index) {
      if (paths.insert(found.names[index].native()).second) listing.seen.push_back({found.names[index], pInput, {}});
    }
  }
  for (const auto& [path, error] : found.failures) {
    AddTrouble(path, "cannot be listed: " + error.message(), listing);
  }
  listing.isIncomplete = found.lacksFolder || !found.failures.empty();
  WatchPaths(found.folders, listing);

  // After they are watched, so that no change between the two is missed.
  std::erase_if(listing.seen, [this, &listing](Seen& seen) {
    std::error_code error;
    seen.status = GetFileStatus(seen.path, error);
    if (error) {
      // A link to a file yet to come, or a file that has just gone.
      if (!IsMissing(error)) AddTrouble(seen.path, "cannot be read: " + error.message(), listing);
      listing.isIncomplete = true;
    } else if (!seen.status.isRegular) {
      AddTrouble(seen.path, "is not a regular file and is not read", listing);
    }
    return error || !seen.status.isRegular;
  });
  // Files written first are read first.
  std::stable_sort(listing.seen.begin(), listing.seen.end(),
                   [](const Seen& left, const Seen& right) { return left.status.modified < right.status.modified; });
}

void Follower::WatchPaths(const std::vector<std::filesystem::path>& folders, Listing& listing) {
  std::unordered_map<int, std::vector<std::filesystem::path>> watches;
  std::unordered_set<NativeString> polledFolders;
  std::unordered_set<NativeString> done;
  for (const std::filesystem::path& folder : folders) {
    if (!done.insert(folder.native()).second) continue;
    if (!WatchPath(folder, listing, watches)) polledFolders.insert(folder.native());
  }
  m_bHasPolled = !polledFolders.empty();
  for (Seen& seen : listing.seen) {
    seen.isPolled = polledFolders.contains(seen.path.parent_path().native());
    std::error_code ignored;
    // Writes to a link's target do not show where the link is.
    if (!seen.isPolled && std::filesystem::is_symlink(seen.path, ignored)) {
      seen.isPolled = !WatchPath(seen.path, listing, watches);
      m_bHasPolled = m_bHasPolled || seen.isPolled;
    }
  }
  for (const auto& [number, paths] : m_watches) {
    if (!watches.contains(number)) m_watch.Remove(number);
  }
  m_watches = std::move(watches);
}

/// Returns false when nobody reports changes there.
bool Follower::WatchPath(const std::filesystem::path& path, Listing& listing,
                         std::unordered_map<int, std::vector<std::filesystem::path>>& watches) {
  int number = 0;
  const ChangeWatch::Answer answer =
      m_limits.watchFolders ? m_watch.Add(path, number) : ChangeWatch::Answer::Unsupported;
  switch (answer) {
    case ChangeWatch::Answer::Watched:
      // Something may have come between the listing and the watch.
      if (!m_watches.contains(number)) m_bListingWanted = true;
      watches[number].push_back(path);
      return true;
    case ChangeWatch::Answer::Failed: listing.isIncomplete = true; return true;
    case ChangeWatch::Answer::LimitReached:
      if (!std::exchange(m_bWatchLimitLogged, true)) {
        m_log(Severity::Warning, "the system watches no more files for this user; " + Printable(path) +
                                     " and others are checked at intervals");
      }
      return false;
    case ChangeWatch::Answer::Unsupported: break;
  }
  return false;
}

void Follower::FollowNames(Listing& listing) {
  std::vector<const Seen*> others;
  for (const Seen& seen : listing.seen) {
    const auto known = m_byPath.find(seen.path.native());
    if (known == m_byPath.end() || known->second->place.identity != seen.status.identity) {
      others.push_back(&seen);
      continue;
    }
    FollowedFile& file = *known->second;
    file.listing = m_listing;
    file.isPolled = seen.isPolled;
    file.pInput = seen.pInput;
    const bool isChanged = seen.status.size != file.seenSize || seen.status.modified != file.seenModified;
    if (isChanged || file.isFailureLogged) MarkReady(file);
  }

  std::vector<const Seen*> unknown;
  m_otherNames.clear();
  for (const Seen* const pSeen : others) {
    const auto known = m_files.find(pSeen->status.identity);
    if (known == m_files.end()) {
      unknown.push_back(pSeen);
      continue;
    }
    FollowedFile& file = *known->second;
    if (file.listing == m_listing) {
      m_otherNames.insert_or_assign(pSeen->path.native(), file.place.identity);
      continue;
    }
    const auto former = m_byPath.find(file.place.path.native());
    if (former != m_byPath.end() && former->second == &file) m_byPath.erase(former);
    listing.left.insert_or_assign(file.place.path.native(), &file);
    file.listing = m_listing;
    file.isPolled = pSeen->isPolled;
    file.pInput = pSeen->pInput;
    file.place.path = pSeen->path;
    file.place.isRotated = true;
    file.hasName = true;
    m_byPath.insert_or_assign(pSeen->path.native(), &file);
    m_rotated.insert(&file);
    m_bPositionsChanged = true;
    MarkReady(file);
  }

  std::vector<FollowedFile*> without;
  for (const auto& [identity, pFile] : m_files) {
    if (pFile->hasName && pFile->listing != m_listing) without.push_back(pFile.get());
  }
  for (FollowedFile* const pFile : without) Leave(*pFile, listing);
  // A file comes before its possible copies, whose names extend its own.
  std::unordered_map<NativeString, const Seen*> waiting;
  for (const Seen* const pSeen : unknown) waiting.emplace(pSeen->path.native(), pSeen);
  for (const Seen* const pSeen : unknown) {
    const NativeString& name = pSeen->path.native();
    for (std::size_t size = pSeen->path.parent_path().native().size() + 1; size <= name.size(); ++size) {
      const auto next = waiting.find(name.substr(0, size));
      if (next == waiting.end()) continue;
      Adopt(*next->second, listing);
      waiting.erase(next);
    }
  }
}

/// No input's pattern matches the file any more.
void Follower::Leave(FollowedFile& file, Listing& listing) {
  const auto named = m_byPath.find(file.place.path.native());
  if (named != m_byPath.end() && named->second == &file) m_byPath.erase(named);
  // Its input is gone, unless it was renamed or deleted.
  const bool isOurs = std::any_of(m_inputs.begin(), m_inputs.end(),
                                  [&file](const auto& pInput) { return pInput->pattern.Matches(file.place.path); });
  if (isOurs && !file.pFile) {
    if (auto pFile = FindOpened(file.place.path.parent_path(), file.place.identity, listing)) {
      SetOpen(file, std::move(pFile));
    }
  }
  if (!isOurs || !file.pFile) return Drop(file);
  listing.left.insert_or_assign(file.place.path.native(), &file);
  file.hasName = false;
  file.place.isRotated = true;
  m_rotated.insert(&file);
  m_bPositionsChanged = true;
  MarkReady(file);
}

/// Starts to follow a new file.
void Follower::Adopt(const Seen& seen, Listing& listing) {
  // It was just followed under another of its names.
  if (m_files.contains(seen.status.identity)) {
    m_otherNames.insert_or_assign(seen.path.native(), seen.status.identity);
    return;
  }
  std::error_code error;
  std::unique_ptr<OpenedFile> pFile = OpenedFile::Open(seen.path, error);
  FileStatus status;
  if (pFile) status = pFile->GetStatus(error);
  if (error) {
    listing.isIncomplete = true;
    if (!IsMissing(error)) AddTrouble(seen.path, "cannot be read: " + error.message(), listing);
    return;
  }
  if (status.identity != seen.status.identity) {
    m_bListingWanted = true;
    return;
  }

  Place place;
  std::optional<Generation> before;
  std::optional<Generation> saved = TakeSaved(seen);
  const bool isSame =
      saved && status.size >= saved->read && HasHead(*pFile, status.size, saved->place.head, error) && !error;
  // Under another name it is another file, which got the number of one that was deleted.
  if (saved && !isSame && saved->place.path != seen.path) saved.reset();
  const bool isKnownInput = m_knownPatterns.contains(seen.pInput->settings.pattern);
  std::optional<Generation> rest;
  if (!saved && isKnownInput) {
    for (FollowedFile* const pOriginal : FindOriginals(seen.path)) {
      MarkReady(*pOriginal);
      rest = TakeRest(*pOriginal, *pFile);
      if (!rest && IsToBeHeld(*pOriginal, seen, *pFile, listing)) return;
      // It may have been truncated while the two were compared.
      if (!rest) rest = TakeRest(*pOriginal, *pFile);
      if (rest) break;
    }
  }
  if (isSame) {
    rest = saved;
    place = saved->place;
    place.isRotated = place.isRotated || place.path != seen.path;
  } else if (saved) {
    m_log(Severity::Info, Printable(seen.path) + " is another file than before; read from its start");
    before = saved;
  } else if (rest) {
    place = rest->place;
    place.isRotated = true;
  } else if (!isKnownInput && !seen.pInput->settings.fromBeginning) {
    place.position = FindLastLineStart(*pFile, status.size, seen.pInput->settings.maxLineBytes, error);
    place.head = ReadHead(*pFile, place.position, error);
  }
  FollowedFile& file = Add(status.identity, seen.path, seen.pInput, std::move(pFile));
  file.place.position = file.read = place.position;
  file.place.head = place.head;
  file.place.isRotated = place.isRotated;
  file.before = before;
  if (rest) {
    // Lines in transit belonged to this file.
    SetSource(file, rest->source);
    file.read = rest->read;
  }
  file.listing = m_listing;
  file.isPolled = seen.isPolled;
  const auto former = listing.left.find(seen.path.native());
  if (former != listing.left.end()) file.waitsFor = former->second->source;
  m_byPath.insert_or_assign(seen.path.native(), &file);

  if (status.size == file.read) {
    file.isAtEnd = true;
    file.seenSize = status.size;
    file.seenModified = status.modified;
    if (file.place.isRotated) Close(file);
  } else {
    if (file.place.isRotated) m_rotated.insert(&file);
    MarkReady(file);
  }
  CloseUnused();
}

/// The followed files whose names `path` extends, as the name of a copy would, the longest first: with `a.log.10` there
/// are `a.log.1` and `a.log`.
std::vector<FollowedFile*> Follower::FindOriginals(const std::filesystem::path& path) const {
  std::vector<FollowedFile*> originals;
  const NativeString& name = path.native();
  const std::size_t folderSize = path.parent_path().native().size() + 1;
  for (std::size_t size = name.size() - 1; size > folderSize; --size) {
    const auto found = m_byPath.find(name.substr(0, size));
    if (found != m_byPath.end() && !found->second->isRefused) originals.push_back(found->second);
  }
  return originals;
}

/// Takes over a file's state before it was truncated, if it was and `copy` begins like that.
std::optional<Generation> Follower::TakeRest(FollowedFile& original, const OpenedFile& copy) {
  if (!Look(original) || !original.before) return std::nullopt;
  if (m_limits.now() - original.before->endTime > m_limits.rotatedQuietTime) return std::nullopt;
  const Generation& before = *original.before;
  // The copy may have grown until the truncation.
  std::error_code error;
  const std::uint64_t size = copy.GetStatus(error).size;
  if (error || before.read == 0 || size < before.read || !HasHead(copy, size, before.place.head, error))
    return std::nullopt;
  return std::exchange(original.before, std::nullopt);
}

/// Whether a file may be an unfinished copy whose original is truncated next. It is not read before that, unless
/// nothing happens for a while.
bool Follower::IsToBeHeld(FollowedFile& original, const Seen& seen, const OpenedFile& copy, Listing& listing) {
  std::error_code error;
  const std::uint64_t copied = copy.GetStatus(error).size;
  if (error) return false;
  const std::uint64_t size = std::min(copied, original.read);
  const bool isSame = size > 0 && original.pFile && IsSameSoFar(*original.pFile, copy, size, error);
  if (copied > 0 && !isSame) return false;
  const Time now = m_limits.now();
  Held held{copied, now};
  const auto known = m_held.find(seen.path.native());
  if (known != m_held.end() && known->second.size == held.size) held = known->second;
  if (copied > 0 && now - held.changeTime >= m_limits.rotatedQuietTime) return false;
  listing.held.insert_or_assign(seen.path.native(), held);
  if (copied > 0) listing.isIncomplete = true;
  return true;
}

/// Takes over the saved state of a file, if any.
std::optional<Generation> Follower::TakeSaved(const Seen& seen) {
  auto found = m_saved.find(seen.status.identity);
  if (found == m_saved.end()) {
    // The number of the volume may have changed since.
    const auto former = m_savedPaths.find(seen.path.native());
    if (former == m_savedPaths.end()) return std::nullopt;
    found = m_saved.find(former->second);
    if (found == m_saved.end() || found->second.head.length == 0) return std::nullopt;
    const FileIdentity& identity = found->second.identity;
    if (identity.index != seen.status.identity.index || identity.birth != seen.status.identity.birth) {
      return std::nullopt;
    }
  }
  const Generation former = Return(found->second);
  m_saved.erase(found);
  return former;
}

/// The former state of a file that is followed again, so that its lines in transit do not come twice.
Generation Follower::Return(const Place& place) {
  Generation former{place, place.position, m_nextSource++, m_limits.now()};
  const auto departed = m_departed.find(place.identity);
  if (departed != m_departed.end()) {
    former.source = departed->second.source;
    former.read = departed->second.read;
    m_departed.erase(departed);
  }
  return former;
}

/// Finds files that were renamed while nobody followed them, to names that no input's pattern matches.
void Follower::AdoptRotated(Listing& listing) {
  std::vector<FileIdentity> found;
  for (const auto& entry : m_saved) {
    const FileIdentity& identity = entry.first;
    const Place& place = entry.second;
    const auto input = std::find_if(m_inputs.begin(), m_inputs.end(),
                                    [&place](const auto& pInput) { return pInput->pattern.Matches(place.path); });
    // A number reused for another file must not make that one be read.
    if (input == m_inputs.end() || (place.head.length == 0 && identity.birth == 0)) continue;
    std::unique_ptr<OpenedFile> pFile = FindOpened(place.path.parent_path(), identity, listing);
    if (!pFile) continue;
    std::error_code error;
    const FileStatus status = pFile->GetStatus(error);
    if (error || status.size <= place.position || !HasHead(*pFile, status.size, place.head, error)) continue;
    FollowedFile& file = Add(identity, place.path, *input, std::move(pFile));
    const Generation former = Return(place);
    SetSource(file, former.source);
    file.place = place;
    file.place.isRotated = true;
    file.read = former.read;
    file.hasName = false;
    m_rotated.insert(&file);
    MarkReady(file);
    const auto successor = m_byPath.find(place.path.native());
    if (successor != m_byPath.end()) successor->second->waitsFor = file.source;
    found.push_back(identity);
  }
  for (const FileIdentity& identity : found) m_saved.erase(identity);
}

std::unique_ptr<OpenedFile> Follower::FindOpened(const std::filesystem::path& folder, const FileIdentity& identity,
                                                 Listing& listing) const {
  const auto [place, isNew] = listing.folders.try_emplace(folder.native());
  std::error_code error;
  if (isNew) {
    std::filesystem::directory_iterator entry(folder, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
      std::error_code ignored;
      const FileStatus status = GetFileStatus(entry->path(), ignored);
      if (!ignored && status.isRegular) place->second.emplace(status.identity, entry->path());
    }
  }
  const auto found = place->second.find(identity);
  if (found == place->second.end()) return nullptr;
  std::unique_ptr<OpenedFile> pFile = OpenedFile::Open(found->second, error);
  if (!pFile || pFile->GetStatus(error).identity != identity) return nullptr;
  return pFile;
}

void Follower::ForgetOld() {
  const std::int64_t oldest = std::chrono::system_clock::to_time_t(m_limits.wallClock() - m_limits.forgetTime);
  std::size_t count = std::erase_if(m_saved, [oldest](const auto& entry) { return entry.second.seenTime < oldest; });
  while (m_saved.size() > m_limits.maxVanished) {
    m_saved.erase(std::min_element(m_saved.begin(), m_saved.end(), [](const auto& left, const auto& right) {
      return left.second.seenTime < right.second.seenTime;
    }));
    ++count;
  }
  if (count > 0) m_bPositionsChanged = true;
  std::erase_if(m_savedPaths, [this](const auto& entry) { return !m_saved.contains(entry.second); });
  std::erase_if(m_departed, [this](const auto& entry) { return !m_saved.contains(entry.first); });
}

FollowedFile& Follower::Add(const FileIdentity& identity, const std::filesystem::path& path,
                            std::shared_ptr<const FileInput> pInput, std::unique_ptr<OpenedFile> pFile) {
  auto& pNew = m_files[identity];
  pNew = std::make_unique<FollowedFile>();
  FollowedFile& file = *pNew;
  file.source = m_nextSource++;
  file.place.identity = identity;
  file.place.path = path;
  file.pInput = std::move(pInput);
  file.changeTime = m_limits.now();
  m_bySource.emplace(file.source, &file);
  SetOpen(file, std::move(pFile));
  m_bPositionsChanged = true;
  return file;
}

/// Stops following a file. Its position is kept in case it comes back.
void Follower::Drop(FollowedFile& file) {
  std::error_code error;
  const bool isDeleted = file.pFile && !file.pFile->GetStatus(error).hasName && !error;
  file.place.seenTime = std::chrono::system_clock::to_time_t(m_limits.wallClock());
  if (!isDeleted && !file.isRefused) {
    m_savedPaths.insert_or_assign(file.place.path.native(), file.place.identity);
    m_saved.insert_or_assign(file.place.identity, file.place);
    if (!file.IsDelivered()) m_departed.insert_or_assign(file.place.identity, Departed{file.source, file.read});
  }
  Close(file);
  if (file.isReady) std::erase(m_ready, &file);
  m_rotated.erase(&file);
  m_bySource.erase(file.source);
  m_bPositionsChanged = true;
  const FileIdentity identity = file.place.identity;
  m_files.erase(identity);
}

void Follower::SetOpen(FollowedFile& file, std::unique_ptr<OpenedFile> pFile) {
  file.pFile = std::move(pFile);
  file.openPlace = m_open.insert(m_open.end(), &file);
}

void Follower::Close(FollowedFile& file) {
  if (!file.pFile) return;
  file.pFile.reset();
  m_open.erase(file.openPlace);
}

/// Closes files that have not changed for long, and more of them when too many are open.
void Follower::CloseUnused() {
  const Time now = m_limits.now();
  // Those that cannot be closed come before others; checking all of them each time would take too long.
  int attempts = 16;
  for (auto next = m_open.begin(); next != m_open.end() && attempts > 0;) {
    FollowedFile& file = **next++;
    const bool isSurplus = m_open.size() > m_limits.maxOpenFiles;
    const bool isIdle = now - file.changeTime >= m_limits.idleCloseTime && file.IsDelivered();
    if (!isSurplus && now - file.changeTime < m_limits.idleCloseTime) return;
    // Rotated files include those without a name, which could not be opened again.
    if (file.isAtEnd && !file.isReady && !m_rotated.contains(&file) && (isSurplus || isIdle)) {
      Close(file);
    } else {
      --attempts;
    }
  }
}

bool Follower::EnsureOpen(FollowedFile& file) {
  if (file.pFile) return true;
  std::error_code error;
  std::unique_ptr<OpenedFile> pFile = OpenedFile::Open(file.place.path, error);
  FileStatus status;
  if (pFile) status = pFile->GetStatus(error);
  if (error && !IsMissing(error)) {
    Fail(file, error);
  } else if (error || status.identity != file.place.identity) {
    m_bListingWanted = true;
  } else {
    SetOpen(file, std::move(pFile));
    return true;
  }
  return false;
}

void Follower::Fail(FollowedFile& file, const std::error_code& error) {
  if (!std::exchange(file.isFailureLogged, true)) {
    m_log(Severity::Warning, Printable(file.place.path) + ": cannot be read: " + error.message());
  }
  m_nextListing = std::min(m_nextListing, m_limits.now() + m_limits.pollListInterval);
}

/// Sees what has changed. Returns false when the file cannot be read now.
bool Follower::Look(FollowedFile& file) {
  if (!EnsureOpen(file)) return false;
  std::error_code error;
  const FileStatus status = file.pFile->GetStatus(error);
  bool isSame = true;
  if (!error && (status.size != file.seenSize || status.modified != file.seenModified)) {
    isSame = status.size >= file.read && HasHead(*file.pFile, status.size, file.place.head, error);
    file.seenSize = status.size;
    file.seenModified = status.modified;
    file.changeTime = m_limits.now();
    file.hasEnded = false;
    // It has to end once more.
    if (file.place.isRotated) m_rotated.insert(&file);
    m_open.splice(m_open.end(), m_open, file.openPlace);
  }
  if (error) {
    Fail(file, error);
    return false;
  }
  file.isFailureLogged = false;
  if (!isSame) Truncate(file);
  return true;
}

/// Starts again at the beginning of the file.
void Follower::Truncate(FollowedFile& file) {
  m_log(Severity::Info, Printable(file.place.path) + " was truncated; read from its start");
  file.before = Generation{file.place, file.read, file.source, m_limits.now()};
  SetSource(file, m_nextSource++);
  file.place.position = file.read = 0;
  // There may be a copy whose reading was postponed.
  m_bListingWanted = true;
  file.place.head = {};
  m_bPositionsChanged = true;
}

void Follower::SetSource(FollowedFile& file, std::uint64_t source) {
  m_bySource.erase(file.source);
  file.source = source;
  m_bySource.emplace(file.source, &file);
}

void Follower::MarkReady(FollowedFile& file) {
  if (std::exchange(file.isReady, true)) return;
  m_ready.push_back(&file);
}

void Follower::LookAtPolled() {
  for (FollowedFile* const pFile : m_open) {
    if (!pFile->isPolled || pFile->isReady) continue;
    std::error_code error;
    const FileStatus status = pFile->pFile->GetStatus(error);
    if (error || status.size != pFile->seenSize || status.modified != pFile->seenModified) MarkReady(*pFile);
  }
}

/// Finds out which of the renamed files have ended.
void Follower::LookAtRotated() {
  const Time now = m_limits.now();
  const std::vector<FollowedFile*> files(m_rotated.begin(), m_rotated.end());
  for (FollowedFile* const pFile : files) {
    FollowedFile& file = *pFile;
    if (file.isReady || !EnsureOpen(file)) continue;
    std::error_code error;
    const FileStatus status = file.pFile->GetStatus(error);
    if (error || status.size != file.seenSize || status.modified != file.seenModified || !file.isAtEnd) {
      MarkReady(file);
      continue;
    }
    if (now - file.changeTime < m_limits.rotatedQuietTime) continue;
    if (!file.hasEnded && !file.isRefused && file.read < file.seenSize) {
      file.hasEnded = true;
      MarkReady(file);
    } else if (file.hasName) {
      m_rotated.erase(&file);
      // On some systems the next rotation cannot replace an open file.
      Close(file);
    } else if (file.IsDelivered()) {
      Drop(file);
    }
  }
}

/// Whether the file that had this name before is still to be read.
bool Follower::HasToWait(FollowedFile& file) const {
  if (file.waitsFor == 0) return false;
  const auto former = m_bySource.find(file.waitsFor);
  if (former != m_bySource.end() && former->second->isReady) return true;
  file.waitsFor = 0;
  return false;
}

Turn Follower::HandOut(LineSink& sink) {
  while (!m_ready.empty()) {
    FollowedFile& file = *m_ready.front();
    if (HasToWait(file)) {
      m_ready.pop_front();
      m_ready.push_back(&file);
      continue;
    }
    const Turn turn = HandOut(file, sink);
    if (turn.end == Turn::End::Refused) return turn;
    m_ready.pop_front();
    file.isReady = false;
    if (turn.end == Turn::End::Done) MarkReady(file);
    CloseUnused();
    if (turn.bytes > 0 || turn.end == Turn::End::Done) return {Turn::End::Done, turn.bytes};
  }
  return {};
}

/// Continues reading the file. Returns false when it cannot be read, or should not be.
bool Follower::ReadBlock(FollowedFile& file) {
  m_block = {};
  if (!Look(file)) return false;
  std::error_code error;
  const std::size_t size = file.pFile->ReadAt(file.read, m_buffer.data(), m_buffer.size(), error);
  if (error) {
    Fail(file, error);
    return false;
  }
  const bool isRefused = file.read == 0 && IsCompressed({m_buffer.data(), size});
  if (isRefused && !file.isRefused) {
    m_log(Severity::Warning, Printable(file.place.path) + ": is compressed and is not read");
  }
  file.isRefused = isRefused;
  file.isAtEnd = isRefused || size < m_buffer.size();
  m_block = {file.source, file.read, size, file.isAtEnd};
  return !isRefused;
}

/// `Done` says that the file has more.
Turn Follower::HandOut(FollowedFile& file, LineSink& sink) {
  Turn turn;
  // After a refusal its lines are still in the buffer; what was written to the file since is not.
  const bool isFresh = m_block.source != file.source;
  if (isFresh && !ReadBlock(file)) {
    m_block = {};
    return turn;
  }
  const std::string_view block(m_buffer.data(), m_block.size);
  // A file that has lost its name keeps its input, whereas the buffer fits the current inputs.
  const std::size_t maxLineBytes = std::min(file.pInput->settings.maxLineBytes, m_buffer.size() - BytesToTell(0));
  for (;;) {
    const std::string_view rest = block.substr(file.read - m_block.offset);
    const std::optional<Line> line = FirstLine(rest, maxLineBytes, file.hasEnded && m_block.isLast);
    if (!line) break;
    if (!sink.Take(line->text, {file.source, file.read + line->size})) {
      turn.end = Turn::End::Refused;
      break;
    }
    if (line->isPiece && !std::exchange(file.isLongLineLogged, true)) {
      m_log(Severity::Warning, Printable(file.place.path) + " has lines of more than " + std::to_string(maxLineBytes) +
                                   " bytes, which are sent in pieces");
    }
    file.read += line->size;
    turn.bytes += line->size;
  }
  ExtendHead(file.place.head, m_block.offset, block, file.read);
  if (turn.end == Turn::End::Refused) {
    // As long as nothing of it was handed out, nobody would see that the file holds something else by now.
    if (file.read == 0) m_block = {};
    return turn;
  }
  if (!m_block.isLast || !isFresh) turn.end = Turn::End::Done;
  m_block = {};
  return turn;
}

void Follower::Taken(Mark mark) {
  const auto found = m_bySource.find(mark.source);
  if (found == m_bySource.end()) return TakenOfDeparted(mark);
  FollowedFile& file = *found->second;
  const std::uint64_t position = std::min(mark.position, file.read);
  if (position <= file.place.position) return;
  file.place.position = position;
  m_bPositionsChanged = true;
}

void Follower::TakenOfDeparted(Mark mark) {
  const auto departed = std::find_if(m_departed.begin(), m_departed.end(),
                                     [&mark](const auto& entry) { return entry.second.source == mark.source; });
  if (departed == m_departed.end()) return;
  const auto saved = m_saved.find(departed->first);
  if (saved == m_saved.end()) return;
  saved->second.position = std::max(saved->second.position, mark.position);
  m_bPositionsChanged = true;
}

std::string Follower::GetName(std::uint64_t source) const {
  const auto found = m_bySource.find(source);
  return found == m_bySource.end() ? std::string() : PathToText(found->second->place.path);
}

void Follower::Rewind() {
  m_block = {};
  m_departed.clear();
  for (const auto& [identity, pFile] : m_files) {
    if (pFile->IsDelivered()) continue;
    pFile->read = pFile->place.position;
    MarkReady(*pFile);
  }
}

std::string Follower::WritePositions() const {
  PositionsText text;
  for (const std::string& pattern : m_knownPatterns) text.AddPattern(pattern);
  const std::int64_t now = std::chrono::system_clock::to_time_t(m_limits.wallClock());
  for (const auto& [identity, pFile] : m_files) {
    if (!pFile->isRefused) text.AddPlace(pFile->place, now);
  }
  for (const auto& [identity, place] : m_saved) text.AddPlace(place, place.seenTime);
  return text.Finish();
}

void Follower::MarkSaved() {
  m_bPositionsChanged = false;
  m_nextSave = m_limits.now() + m_limits.saveInterval;
}

}  // namespace sorvex::collect
