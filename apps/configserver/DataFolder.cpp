#include <DataFolder.h>

#include <Text.h>
#include <platform/Platform.h>
#include <shared/platform/FileReplacement.h>

#include <openssl/crypto.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace sorvex::configserver {
namespace {

constexpr std::string_view patchPrefix = "x64_72_";
constexpr const char* configurationFile = "AgentConfig.xml";
constexpr const char* registrationFile = "registration.txt";

/// Each is looked for on the disk while everybody else waits.
constexpr int maxPatchNames = 1000;

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string content{std::istreambuf_iterator<char>(file), {}};
  if (!file) throw std::runtime_error(PathToUtf8(path) + " cannot be read");
  return content;
}

/// The folder's tokens, wiped after use.
class Tokens {
 public:
  explicit Tokens(const std::filesystem::path& path) {
    if (std::filesystem::exists(path)) m_content = ReadFile(path);
  }
  ~Tokens() { OPENSSL_cleanse(m_content.data(), m_content.size()); }
  Tokens(const Tokens&) = delete;
  Tokens& operator=(const Tokens&) = delete;

  /// Calls `visit` with each token.
  template <class Visit>
  void ForEach(Visit visit) const {
    std::string_view rest = m_content;
    while (!rest.empty()) {
      const std::size_t end = rest.find('\n');
      std::string_view line = rest.substr(0, end);
      rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
      constexpr std::string_view blanks = " \t\r";
      line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
      line = line.substr(0, line.find_last_not_of(blanks) + 1);
      if (!line.empty()) visit(line);
    }
  }

 private:
  std::string m_content;
};

}  // namespace

DataFolder::DataFolder(const std::filesystem::path& root) : m_root(root) {
  if (std::filesystem::create_directories(root)) {
    std::filesystem::permissions(root, std::filesystem::perms::owner_all);
  }
  for (const char* const name : {"default", "agents", "patches"}) std::filesystem::create_directory(root / name);
}

bool DataFolder::HasTokens() const {
  bool has = false;
  Tokens(m_root / "tokens.txt").ForEach([&has](std::string_view) { has = true; });
  return has;
}

bool DataFolder::AcceptsToken(std::string_view token) const {
  bool hasTokens = false;
  bool accepted = false;
  Tokens(m_root / "tokens.txt").ForEach([&](std::string_view line) {
    hasTokens = true;
    // The time that it takes does not reveal how much of a token is right.
    accepted = (line.size() == token.size() && CRYPTO_memcmp(line.data(), token.data(), line.size()) == 0) || accepted;
  });
  return accepted || !hasTokens;
}

std::optional<AgentName> DataFolder::FindAgent(std::string_view identifier) const {
  std::optional<std::string> name = FolderName(identifier);
  // Where "A" and "a" are one folder, it belongs to the agent that came first.
  if (!name || !IsStoredAs(m_root / "agents" / *name)) return std::nullopt;
  return AgentName(*std::move(name));
}

bool DataFolder::Register(const AgentName& agent, std::string_view osVersion, std::string_view agentVersion,
                          const std::vector<std::string>& autoCreation) {
  const bool isNew = !std::filesystem::exists(FolderOf(agent) / registrationFile);
  std::string report = "registered: " + TimeText() + "\nos-version: " + Escape(osVersion) +
                       "\nagent-version: " + Escape(agentVersion) + "\n";
  for (const std::string& parameter : autoCreation) report += "auto-creation: " + Escape(parameter) + "\n";
  StoreReport(agent, registrationFile, report);
  return isNew;
}

void DataFolder::StoreStatus(const AgentName& agent, std::int64_t status, std::string_view time) {
  StoreReport(agent, "status.txt",
              "reported: " + TimeText() + "\nstatus: " + std::to_string(status) + "\n" + std::string(time) + "\n");
}

void DataFolder::StoreKey(const AgentName& agent, std::string_view key) {
  const std::filesystem::path path = FolderOf(agent) / "key.der";
  if (std::filesystem::exists(path) && ReadFile(path) == key) return;
  StoreReport(agent, "key.der", key);
}

void DataFolder::StoreReport(const AgentName& agent, const char* file, std::string_view content) {
  const std::filesystem::path folder = FolderOf(agent);
  std::filesystem::create_directory(folder);
  FileReplacement replacement(folder / file);
  replacement.Write(content);
  replacement.Commit();
}

bool DataFolder::AreUpdatesDisabled(const AgentName& agent) const {
  return std::filesystem::exists(FolderOf(agent) / "updates-disabled");
}

std::shared_ptr<ServedFile> DataFolder::OpenConfiguration(const AgentName& agent) const {
  for (const std::filesystem::path& folder : {FolderOf(agent), m_root / "default"}) {
    const std::filesystem::path path = folder / configurationFile;
    if (std::filesystem::is_regular_file(path)) return std::make_shared<ServedFile>(path);
  }
  return nullptr;
}

std::shared_ptr<ServedFile> DataFolder::OpenPatch(std::string_view names, std::string& found) {
  for (int count = 0; count < maxPatchNames && !names.empty(); ++count) {
    const std::size_t comma = names.find(',');
    const std::string_view name = names.substr(0, comma);
    names.remove_prefix(comma == std::string_view::npos ? names.size() : comma + 1);
    const std::string_view component = name.starts_with(patchPrefix) ? name.substr(patchPrefix.size()) : name;
    for (const std::string_view candidate : {name, component}) {
      if (!IsFileName(candidate)) continue;
      const std::string file = std::string(candidate) + ".tar.gz";
      const std::filesystem::path path = m_root / "patches" / file;
      if (!std::filesystem::is_regular_file(path)) continue;
      std::shared_ptr<KnownDigest>& known = m_patchDigests[file];
      if (!known) known = std::make_shared<KnownDigest>();
      found = file;
      return std::make_shared<ServedFile>(path, known);
    }
  }
  return nullptr;
}

}  // namespace sorvex::configserver
