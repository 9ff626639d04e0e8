// What the server knows about agents and has for them, in either protocol: files in one folder.
//
//   tokens.txt                          accepted tokens, one per line; none: every token is accepted
//   default/AgentConfig.xml             configuration of every agent without its own
//   agents/<identifier>/AgentConfig.xml configuration of one agent
//   agents/<identifier>/updates-disabled  if it exists, the agent gets neither configuration nor patch
//   agents/<identifier>/...             what the agent reported
//   patches/<name>.tar.gz               patches
#pragma once

#include <ServedFile.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::configserver {

/// An agent as the folder knows it: the name of its folder below "agents". Only `DataFolder` makes one.
class AgentName {
 public:
  const std::string& Text() const { return m_name; }

 private:
  friend class DataFolder;
  explicit AgentName(std::string name) : m_name(std::move(name)) {}
  std::string m_name;
};

/// Every request reads the files anew, so an administrator's changes apply from the next request on. One thread.
/// Operations throw `std::exception` when files cannot be read or written.
class DataFolder {
 public:
  /// Makes the folder and the missing ones in it, which only their owner can access.
  explicit DataFolder(const std::filesystem::path& root);

  /// Whether "tokens.txt" has any token; if not, every agent is accepted.
  bool HasTokens() const;
  bool AcceptsToken(std::string_view token) const;

  /// Returns nothing for an identifier that cannot have a folder.
  std::optional<AgentName> FindAgent(std::string_view identifier) const;

  /// Stores the agent's report; returns whether the agent is new. `autoCreation` has "key=value" for each parameter.
  bool Register(const AgentName& agent, std::string_view osVersion, std::string_view agentVersion,
                const std::vector<std::string>& autoCreation);

  /// `time` is a line "key: value".
  void StoreStatus(const AgentName& agent, std::int64_t status, std::string_view time);

  /// DER; does nothing when the stored key is the same.
  void StoreKey(const AgentName& agent, std::string_view key);

  bool AreUpdatesDisabled(const AgentName& agent) const;

  /// The agent's own configuration, or the default one; null when neither exists.
  std::shared_ptr<ServedFile> OpenConfiguration(const AgentName& agent) const;

  /// The first existing patch of `names`, which are separated by commas; null when there is none. Names after the
  /// thousandth do not count. `found` receives its file name. A name stands for the file of that name, and
  /// "x64_72_agentcore" for "agentcore" as well.
  std::shared_ptr<ServedFile> OpenPatch(std::string_view names, std::string& found);

 private:
  std::filesystem::path FolderOf(const AgentName& agent) const { return m_root / "agents" / agent.Text(); }
  void StoreReport(const AgentName& agent, const char* file, std::string_view content);

  std::filesystem::path m_root;
  std::map<std::string, std::shared_ptr<KnownDigest>, std::less<>> m_patchDigests;
};

}  // namespace sorvex::configserver
