// What the server knows of agents and has for them: files in one folder, whichever protocol asks for them.
//
//   tokens.txt                          accepted tokens, one a line; none: every token is accepted
//   default/AgentConfig.xml             configuration of every agent without its own
//   agents/<identifier>/AgentConfig.xml configuration of one agent
//   agents/<identifier>/updates-disabled  when it is there, the agent gets neither configuration nor patch
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

/// Every request looks at the files anew, so that what an administrator changes holds from the next request on. Used by
/// one thread. Operations throw `std::exception` when files cannot be read or written.
class DataFolder {
 public:
  /// Makes the folder and those in it that are missing; only their owner may look into it then.
  explicit DataFolder(const std::filesystem::path& root);

  const std::filesystem::path& Root() const { return m_root; }

  /// Whether there is any token in "tokens.txt"; without, every agent is accepted.
  bool HasTokens() const;
  bool AcceptsToken(std::string_view token) const;

  /// Nothing for an identifier that cannot have a folder of its own.
  std::optional<AgentName> FindAgent(std::string_view identifier) const;

  /// Keeps what the agent told; returns whether it is new. `autoCreation` has "key=value" for each parameter.
  bool Register(const AgentName& agent, std::string_view osVersion, std::string_view agentVersion,
                const std::vector<std::string>& autoCreation);

  /// `time` is a line "key: value".
  void StoreStatus(const AgentName& agent, std::int64_t status, std::string_view time);

  /// DER; does nothing when it is the one that is there.
  void StoreKey(const AgentName& agent, std::string_view key);

  bool AreUpdatesDisabled(const AgentName& agent) const;

  /// The agent's own configuration, or the default one; null when there is neither.
  std::shared_ptr<ServedFile> OpenConfiguration(const AgentName& agent) const;

  /// The first of the patches that there is; `names` has commas between them. `found` receives the name of its file. A
  /// name stands for the file of that name, and "x64_72_agentcore" for "agentcore" as well. Null when there is none.
  std::shared_ptr<ServedFile> OpenPatch(std::string_view names, std::string& found);

 private:
  std::filesystem::path FolderOf(const AgentName& agent) const { return m_root / "agents" / agent.Text(); }
  void StoreReport(const AgentName& agent, const char* file, std::string_view content);

  std::filesystem::path m_root;
  std::map<std::string, std::shared_ptr<KnownDigest>, std::less<>> m_patchDigests;
};

}  // namespace sorvex::configserver
