#include <FetchCommands.h>

#include <DeliveredFile.h>
#include <HtmlPage.h>
#include <Output.h>
#include <ServerAnswer.h>
#include <StatusLine.h>
#include <platform/Platform.h>

#include <chrono>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace sorvex::agent {
namespace {

/// Shows the elapsed time and the bytes received.
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

/// Gives the file its name when it is complete and `findFault` finds nothing. Returns whether it has it; otherwise says
/// why not.
template <class FindFault>
bool Keep(DeliveredFile& file, FindFault findFault) {
  std::string reason;
  try {
    file.Finish();
    reason = findFault();
    if (reason.empty()) {
      file.Keep();
      return true;
    }
  } catch (const std::system_error& error) {
    reason = error.what();
  }
  PrintError(reason + "; the file is left as it is");
  return false;
}

/// What is wrong with a delivery: a digest other than the server's or, where the protocol has none, content that is
/// obviously not what was asked for.
std::string FindFault(const DeliveredFile& file, const std::string& digest, const ServerConnection& connection) {
  if (connection.Mode() == ConnectionMode::Https) {
    if (file.Size() == 0) return "the server has sent nothing";
    return IsHtmlPage(file.Begin()) ? "the server has sent an HTML page: is the token right?" : "";
  }
  if (AreSameDigest(digest, file.GetDigest())) return "";
  return "the MD5 of what came is " + file.GetDigest() + ", the server's is '" + digest + "'";
}

void PrintFile(const DeliveredFile& file) {
  PrintNumber("bytes", static_cast<std::int64_t>(file.Size()));
  PrintValue("md5", file.GetDigest());
}

/// Ends a command whose file the server has sent, if `isSent`, with this answer. Returns the exit status.
int FinishDelivery(bool isSent, ServerAnswer answer, DeliveredFile& file, const std::string& digest,
                   const ServerConnection& connection) {
  const bool isHttps = connection.Mode() == ConnectionMode::Https;
  const bool isNothingNew = answer == ServerAnswer::NoUpdate || answer == ServerAnswer::UpdatesDisabled;
  // Data that come with any other answer are not to be used.
  const bool isDelivered =
      isSent && answer == ServerAnswer::Success && Keep(file, [&] { return FindFault(file, digest, connection); });
  if (isHttps && connection->GetLastErrorCode() == 0 && answer != ServerAnswer::Success && !isNothingNew) {
    PrintError("the server has answered with status " + std::to_string(connection->GetLastResultCode()) +
               "; the file is left as it is");
  }
  if (!isSent && !file.WriteError().empty()) PrintError(file.WriteError() + "; the file is left as it is");
  const int status = PrintResult(isDelivered || isNothingNew, connection);
  if (isNothingNew) PrintValue("update", answer == ServerAnswer::NoUpdate ? "none" : "disabled");
  if (isDelivered) PrintFile(file);
  if (isDelivered && isHttps) PrintValue("md5-compared", "no, the server sends none");
  connection->Disconnect();
  return status;
}

}  // namespace

int RunCommand(const FetchConfigurationCommand& command, const ServerConnection& connection) {
  DeliveredFile file(ArgumentToPath(command.file));
  std::string digest;
  bool isSent = false;
  ServerAnswer answer = ServerAnswer::Failure;
  if (connection->Connect()) {
    const FetchLine line(file);
    bool updateBlocked = false;
    connection->GetConfigurationFingerprint(updateBlocked);
    answer = LastAnswer(connection);
    if (answer == ServerAnswer::Success) {
      isSent = connection->RetrieveConfiguration(file.Stream(), digest);
      answer = LastAnswer(connection);
    }
  }
  return FinishDelivery(isSent, answer, file, digest, connection);
}

int RunCommand(const FetchPatchCommand& command, const ServerConnection& connection) {
  auto file = std::make_unique<DeliveredFile>(ArgumentToPath(command.file));
  std::string digest;
  bool isSent = false;
  ServerAnswer answer = ServerAnswer::Failure;
  if (connection->Connect()) {
    for (const std::string& name : command.names) {
      if (file->Size() > 0) {
        // Deletes the data of an unused answer before the next file is made in the same place.
        file.reset();
        file = std::make_unique<DeliveredFile>(ArgumentToPath(command.file));
      }
      const FetchLine line(*file);
      isSent = connection->RetrieveSoftwarePatch({name}, file->Stream(), digest);
      answer = LastAnswer(connection);
      if (answer != ServerAnswer::NoUpdate && answer != ServerAnswer::NotFound) break;
    }
  }
  return FinishDelivery(isSent, answer, *file, digest, connection);
}

int RunCommand(const ServerKeyCommand& command, const ServerConnection& connection) {
  if (connection.Mode() == ConnectionMode::Https) {
    PrintError("there is no key over HTTPS");
    return 1;
  }
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
  isDelivered = isDelivered && Keep(file, [] { return std::string(); });
  const int status = PrintResult(isDelivered, connection);
  if (isDelivered) PrintFile(file);
  connection->Disconnect();
  return status;
}

}  // namespace sorvex::agent
