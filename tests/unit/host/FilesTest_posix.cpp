// Properties that only a POSIX system has: pipes among files, names of any bytes, descriptors that other programs
// inherit, and libraries that lack something.
#include <SorvexHost/ComponentFactory.h>
#include <SorvexHost/LogSinks.h>
#include <host/Digest.h>
#include <host/Text.h>

#include <support/RecordingLogger.h>
#include <support/TemporaryDirectory.h>

#include <ace/DLL_Manager.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

namespace WindowsAgentCommon {
namespace {

using sorvex::test::RecordingLogger;
using sorvex::test::TemporaryDirectory;

/// Not UTF-8: the name as an older system wrote it.
const std::string LATIN1 =
    "Gr\xF6\xDF"
    "e";

TEST(Files, DigestOfAPipeIsEmptyAndWaitsForNobody) {
  const TemporaryDirectory directory;
  const std::filesystem::path pipe = directory.Path() / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(MD5Sum(PathToWide(pipe)), "");
}

TEST(Files, PathOfAnyBytesSurvivesTheWayThroughWideText) {
  const std::filesystem::path path = "/a\xC3\xA4/" + LATIN1 + "/\xC3";
  EXPECT_EQ(WideToPath(PathToWide(path)), path);
}

TEST(Files, DigestIsThatOfAFileWhoseNameIsNoUtf8) {
  const TemporaryDirectory directory;
  EXPECT_EQ(MD5Sum(PathToWide(directory.Write(LATIN1 + "/\xFF", "abc"))), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Files, LogMayHaveANameThatIsNoUtf8) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = WideToPath(PathToWide(directory.Path() / LATIN1));
  CreateFileSink(file, LogLevel::Debug)->Write(LogLevel::Info, "Name", "text");
  EXPECT_THAT(TemporaryDirectory::Read(directory.Path() / LATIN1), testing::HasSubstr(" Info Name text\n"));
}

TEST(Files, NewLogAfterARotationIsClosedToOthersToo) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "agent.log";
  std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
  const std::shared_ptr<ILogSink> sink = CreateFileSink(file, LogLevel::Debug, [&now] { return now; });
  std::filesystem::rename(file, directory.Path() / "agent.log.1");
  now += std::chrono::seconds(1);
  // Whatever the process allows.
  const mode_t usual = umask(0);
  sink->Write(LogLevel::Info, "Name", "text");
  umask(usual);
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0640U);
}

/// Whether programs that this one starts get its open descriptor of that file; true without one.
bool IsInherited(const std::filesystem::path& file) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone) != file) continue;
    return (fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC) == 0;
  }
  return true;
}

TEST(Files, LogIsNotInheritedByOtherPrograms) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = std::filesystem::canonical(directory.Path()) / "agent.log";
  const std::shared_ptr<ILogSink> sink = CreateFileSink(file, LogLevel::Debug);
  EXPECT_FALSE(IsInherited(file));
}

TEST(Files, LibraryThatLacksAFunctionIsRefusedInsteadOfEndingTheProcess) {
  const RecordingLogger log;
  ComponentFactory factory;
  factory.RegisterService("Incomplete", HOST_TEST_INCOMPLETE_PLUGIN, "IncompleteService");
  EXPECT_FALSE(factory.LoadService("Incomplete"));
  EXPECT_THAT(log->Lines(), testing::ElementsAre(testing::HasSubstr("FunctionOfNoLibrary")));
}

/// Whether the library is in memory.
bool IsLoaded(const std::filesystem::path& file) {
  void* const handle = dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}

TEST(Files, LibraryIsGoneWithItsLastService) {
  const TemporaryDirectory directory;
  const std::filesystem::path library = directory.Path() / "plugin.so";
  std::filesystem::copy_file(HOST_TEST_PLAIN_PLUGIN, library);
  // Otherwise it stays until the process ends.
  ACE_DLL_Manager* const manager = ACE_DLL_Manager::instance();
  const u_long usual = manager->unload_policy();
  manager->unload_policy(ACE_DLL_UNLOAD_POLICY_PER_PROCESS);
  ComponentFactory factory;
  // A service of another origin does not hold it.
  factory.RegisterBuiltInServices();
  EXPECT_TRUE(factory.LoadService("IStatisticsServer"));
  for (const char* const name : {"First", "Second"}) {
    factory.RegisterService(name, library, "PlainService");
    EXPECT_TRUE(factory.LoadService(name));
  }
  factory.UnloadService("First");
  EXPECT_TRUE(IsLoaded(library));
  factory.UnloadService("Second");
  EXPECT_FALSE(IsLoaded(library));
  manager->unload_policy(usual);
}

}  // namespace
}  // namespace WindowsAgentCommon
