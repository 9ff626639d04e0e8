// The agent as a service of Windows.
#include "RunFixture.h"

#include <windows.h>

#include <shellapi.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace sorvex::test {
namespace {

using testing::HasSubstr;

/// The service as its manager knows it; removed at the end of the test.
class ManagedService {
 public:
  explicit ManagedService(const Installation& installation) : m_installation(installation) {
    m_manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    m_service = OpenServiceW(m_manager, L"SorvexAgent", SERVICE_ALL_ACCESS);
  }
  ~ManagedService() {
    Close();
    m_installation.Run({"service", "remove"});
    CloseServiceHandle(m_manager);
  }

  bool IsThere() const { return m_service != nullptr; }
  /// It has started itself where the session is a new one.
  bool Start() { return StartServiceW(m_service, 0, nullptr) || GetLastError() == ERROR_SERVICE_ALREADY_RUNNING; }
  bool Stop() {
    SERVICE_STATUS status{};
    return ControlService(m_service, SERVICE_CONTROL_STOP, &status);
  }
  bool WaitFor(DWORD state) {
    return WaitUntil([&] { return QueryServiceStatus(m_service, &m_status) && m_status.dwCurrentState == state; });
  }
  const SERVICE_STATUS& Status() const { return m_status; }

  /// Its command line, split into arguments as a program does.
  DWORD StartType() const {
    const std::vector<std::byte> buffer = Configuration();
    return reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.data())->dwStartType;
  }
  std::vector<std::string> Arguments() const {
    const std::vector<std::byte> buffer = Configuration();
    int count = 0;
    wchar_t** const list =
        CommandLineToArgvW(reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.data())->lpBinaryPathName, &count);
    std::vector<std::string> arguments;
    for (int index = 0; index < count; ++index) arguments.push_back(std::filesystem::path(list[index]).string());
    LocalFree(list);
    return arguments;
  }
  std::wstring Description() const {
    std::vector<std::byte> buffer(8192);
    DWORD size = 0;
    if (!QueryServiceConfig2W(m_service, SERVICE_CONFIG_DESCRIPTION, reinterpret_cast<BYTE*>(buffer.data()),
                              static_cast<DWORD>(buffer.size()), &size)) {
      return L"";
    }
    return reinterpret_cast<const SERVICE_DESCRIPTIONW*>(buffer.data())->lpDescription;
  }
  void Close() {
    if (m_service != nullptr) CloseServiceHandle(m_service);
    m_service = nullptr;
  }

 private:
  std::vector<std::byte> Configuration() const {
    std::vector<std::byte> buffer(8192);
    DWORD size = 0;
    EXPECT_TRUE(QueryServiceConfigW(m_service, reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data()),
                                    static_cast<DWORD>(buffer.size()), &size));
    return buffer;
  }

  const Installation& m_installation;
  SC_HANDLE m_manager = nullptr;
  SC_HANDLE m_service = nullptr;
  SERVICE_STATUS m_status{};
};

TEST(RunService, IsInstalledStartedStoppedAndRemoved) {
  const Installation installation("ApplicationID=7\n", "with blank");
  installation.Run({"service", "remove"});
  const ProcessResult installed = installation.Run({"service", "install", "--interval", "1"});
  ASSERT_EQ(installed.status, 0) << installed.errors;
  EXPECT_EQ(installed.output, "installed: SorvexAgent\n");
  const ProcessResult twice = installation.Run({"service", "install"});
  EXPECT_EQ(twice.status, 1);
  EXPECT_THAT(twice.errors, HasSubstr("CreateService"));

  ManagedService service(installation);
  ASSERT_TRUE(service.IsThere());
  ASSERT_TRUE(service.Start());
  ASSERT_TRUE(service.WaitFor(SERVICE_RUNNING));
  EXPECT_EQ(service.Status().dwControlsAccepted, static_cast<DWORD>(SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN));
  const auto log = [&] { return TemporaryDirectory::Read(installation.Directory().Path() / "state" / "agent.log"); };
  EXPECT_TRUE(WaitUntil([&] { return log().find("The agent starts") != std::string::npos; })) << log();
  EXPECT_TRUE(WaitUntil([&] { return StatusOf(installation, "mode") == "stand-alone"; }));

  EXPECT_TRUE(service.Stop());
  EXPECT_TRUE(service.WaitFor(SERVICE_STOPPED));
  EXPECT_EQ(service.Status().dwWin32ExitCode, static_cast<DWORD>(NO_ERROR));
  EXPECT_EQ(service.Status().dwControlsAccepted, 0u);
  EXPECT_THAT(log(), HasSubstr("The agent stops."));
  service.Close();
  EXPECT_EQ(installation.Run({"service", "remove"}).output, "removed: SorvexAgent\n");
  EXPECT_EQ(installation.Run({"service", "remove"}).status, 1);
}

TEST(RunService, IsInstalledWithWhatItWasGiven) {
  const Installation installation;
  installation.Run({"service", "remove"});
  // Arguments must be quoted for the parser of command lines.
  const std::string version = "a \"b\\\" \\\\c\\";
  const ProcessResult installed =
      installation.Run({"service", "install", "--interval", "77", "--os-version", version, "--agent-version", "9\\"});
  ASSERT_EQ(installed.status, 0) << installed.errors;
  const ManagedService service(installation);
  ASSERT_TRUE(service.IsThere());
  EXPECT_EQ(service.StartType(), static_cast<DWORD>(SERVICE_AUTO_START));
  EXPECT_EQ(service.Description(), L"Collects logs and forwards them.");
  const std::vector<std::string> arguments = service.Arguments();
  ASSERT_GT(arguments.size(), 8u);
  EXPECT_THAT(arguments.front(), testing::EndsWith("sorvex-agent.exe"));
  EXPECT_THAT(
      std::vector<std::string>(arguments.end() - 8, arguments.end()),
      testing::ElementsAre("service", "run", "--interval", "77", "--os-version", version, "--agent-version", "9\\"));
}

TEST(RunService, SaysThatItFailed) {
  const Installation installation;
  installation.Run({"service", "remove"});
  // Two agents cannot use one state directory.
  const RunningAgent first(installation);
  ASSERT_TRUE(first.WaitForLog("The agent starts"));
  ASSERT_EQ(installation.Run({"service", "install", "--interval", "1"}).status, 0);
  ManagedService service(installation);
  ASSERT_TRUE(service.Start());
  ASSERT_TRUE(service.WaitFor(SERVICE_STOPPED));
  EXPECT_EQ(service.Status().dwWin32ExitCode, static_cast<DWORD>(ERROR_SERVICE_SPECIFIC_ERROR));
  EXPECT_EQ(service.Status().dwServiceSpecificExitCode, 1u);
  EXPECT_THAT(TemporaryDirectory::Read(installation.Directory().Path() / "state" / "agent.log"),
              HasSubstr("Error Code.Agent The agent ends: another agent runs here"));
}

TEST(RunService, IsStoppedToBeRemoved) {
  const Installation installation;
  installation.Run({"service", "remove"});
  ASSERT_EQ(installation.Run({"service", "install", "--interval", "1"}).status, 0);
  ManagedService service(installation);
  ASSERT_TRUE(service.Start());
  ASSERT_TRUE(service.WaitFor(SERVICE_RUNNING));
  ASSERT_TRUE(WaitUntil([&] { return StatusOf(installation, "mode") == "stand-alone"; }));
  EXPECT_EQ(installation.Run({"service", "remove"}).status, 0);
  EXPECT_TRUE(service.WaitFor(SERVICE_STOPPED));
  EXPECT_THAT(TemporaryDirectory::Read(installation.Directory().Path() / "state" / "agent.log"),
              HasSubstr("The agent stops."));
}

TEST(RunService, IsNotRunByAnybodyElse) {
  const Installation installation;
  const ProcessResult result = installation.Run({"service", "run"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("StartServiceCtrlDispatcher"));
}

}  // namespace
}  // namespace sorvex::test
