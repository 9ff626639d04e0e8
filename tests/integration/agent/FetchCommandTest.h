// The agent with a module whose connection does what the test says.
#pragma once

#include "AgentFixture.h"

namespace sorvex::test {

class FetchInstallation : public Installation {
 public:
  /// `script` has KEY=VALUE pairs for the scripted module.
  std::vector<std::string> Arguments(const std::vector<std::string>& script,
                                     const std::vector<std::string>& command) const {
    std::vector<std::string> all{"--module", SORVEX_SCRIPTED_MODULE, "--parameter", "Calls=" + CallsPath().string()};
    for (const std::string& entry : script) all.insert(all.end(), {"--parameter", entry});
    all.insert(all.end(), command.begin(), command.end());
    return Installation::Arguments(all);
  }

  ProcessResult Run(const std::vector<std::string>& script, const std::vector<std::string>& command) const {
    return RunProcess(SORVEX_AGENT_PROGRAM, Arguments(script, command));
  }

  std::filesystem::path CallsPath() const { return Directory().Path() / "calls.txt"; }
  std::string Calls() const { return TemporaryDirectory::Read(CallsPath()); }

  /// The folder of the fetched file, which contains only the last good one.
  std::filesystem::path File() const { return Directory().Path() / "out" / "file"; }
  void WriteOldFile() const { Directory().Write("out/file", "the old one"); }
  void ExpectOldFileAlone() const {
    EXPECT_EQ(TemporaryDirectory::Read(File()), "the old one");
    const std::filesystem::directory_iterator files(File().parent_path());
    EXPECT_EQ(std::distance(begin(files), end(files)), 1);
  }
};

// The MD5 of "hello", from the md5sum program.
constexpr const char* helloDigest = "5d41402abc4b2a76b9719d911017c592";

}  // namespace sorvex::test
