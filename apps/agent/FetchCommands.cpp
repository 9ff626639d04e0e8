#include <FetchCommands.h>

#include <DeliveredFile.h>
#include <Output.h>
#include <StatusLine.h>
#include <platform/Platform.h>

#include <chrono>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace sorvex::agent {
namespace {

// What the server answers when there is nothing to deliver.
constexpr std::int32_t noUpdateNeeded = 5;
constexpr std::int32_t updatesDisabled = 7;

/// Shows how long it has taken and what has come.
class FetchLine {
 public:
  explicit FetchLine(const DeliveredFile& file)
      : m_line([&file, begin = std::chrono::steady_clock::now()] {
          const auto seconds =
              std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
          return std::to_string(seconds.count()) + " s, " + std::to_string(file.Size()) + " bytes written";
        }) {}

 private:
  StatusLine m_line;
};

/// Gives the file its name when all of it came, and, if the server has sent a digest with it, as the server meant it.
/// Returns whether it has it; otherwise says why not.
bool Keep(DeliveredFile& file, const std::string* digest) {
  std::string reason;
  try {
    file.Finish();
    if (digest == nullptr || AreSameDigest(*digest, file.GetDigest())) {
      file.Keep();
      return true;
    }
    reason = "the MD5 of what came is " + file.GetDigest() + ", the server's is '" + *digest + "'";
  } catch (const std::system_error& error) {
    reason = error.what();
  }
  PrintError(reason + "; the file is left as it is");
  return false;
}

/// Data that came with an answer of nothing new are none that the server wants used.
bool IsNothingNew(std::int32_t resultCode) { return resultCode == noUpdateNeeded || resultCode == updatesDisabled; }

void PrintFile(const DeliveredFile& file) {
  PrintNumber("bytes", static_cast<std::int64_t>(file.Size()));
  PrintValue("md5", file.GetDigest());
}

/// Prints what became of a file that has a digest by the server.
int PrintDelivery(bool isDelivered, const DeliveredFile& file, const ServerConnection& connection) {
  const std::int32_t code = connection->GetLastResultCode();
  const bool isNothingNew = IsNothingNew(code);
  const int status = PrintResult(isDelivered || isNothingNew, connection);
  if (isNothingNew) PrintValue("update", code == noUpdateNeeded ? "none" : "disabled");
  if (isDelivered) PrintFile(file);
  return status;
}

}  // namespace

int RunCommand(const FetchConfigurationCommand& command, const ServerConnection& connection) {
  DeliveredFile file(ArgumentToPath(command.file));
  std::string digest;
  bool isDelivered = false;
  if (connection->Connect()) {
    const FetchLine line(file);
    bool updateBlocked = false;
    connection->GetConfigurationFingerprint(updateBlocked);
    const std::int32_t code = connection->GetLastResultCode();
    isDelivered = code >= 0 && !IsNothingNew(code) && connection->RetrieveConfiguration(file.Stream(), digest);
  }
  isDelivered = isDelivered && Keep(file, &digest);
  const int status = PrintDelivery(isDelivered, file, connection);
  connection->Disconnect();
  return status;
}

int RunCommand(const FetchPatchCommand& command, const ServerConnection& connection) {
  auto file = std::make_unique<DeliveredFile>(ArgumentToPath(command.file));
  std::string digest;
  bool isDelivered = false;
  if (connection->Connect()) {
    for (const std::string& name : command.names) {
      if (file->Size() > 0) {
        // What an answer that is not used has left goes with its file, before the next one is made beside the same.
        file.reset();
        file = std::make_unique<DeliveredFile>(ArgumentToPath(command.file));
      }
      const FetchLine line(*file);
      isDelivered = connection->RetrieveSoftwarePatch({name}, file->Stream(), digest);
      if (connection->GetLastResultCode() != noUpdateNeeded) break;
    }
  }
  isDelivered = isDelivered && !IsNothingNew(connection->GetLastResultCode()) && Keep(*file, &digest);
  const int status = PrintDelivery(isDelivered, *file, connection);
  connection->Disconnect();
  return status;
}

int RunCommand(const ServerKeyCommand& command, const ServerConnection& connection) {
  DeliveredFile file(ArgumentToPath(command.file));
  bool isDelivered = false;
  if (connection->Connect()) {
    // The key comes with the configuration.
    bool updateBlocked = false;
    connection->GetConfigurationFingerprint(updateBlocked);
    std::uint32_t size = 0;
    if (connection->GetLastResultCode() >= 0 && connection->GetServerPublicKey(nullptr, size)) {
      std::vector<std::uint8_t> key(size);
      isDelivered = connection->GetServerPublicKey(key.data(), size);
      file.Stream().write(reinterpret_cast<const char*>(key.data()), static_cast<std::streamsize>(size));
    }
  }
  isDelivered = isDelivered && Keep(file, nullptr);
  const int status = PrintResult(isDelivered, connection);
  if (isDelivered) PrintFile(file);
  connection->Disconnect();
  return status;
}

}  // namespace sorvex::agent
