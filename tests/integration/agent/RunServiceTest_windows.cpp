// The agent as a service of Windows.
#include "RunFixture.h"

#include <windows.h>

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
  DWORD ExitCode() const { return m_status.dwWin32ExitCode; }
  void Close() {
    if (m_service != nullptr) CloseServiceHandle(m_service);
    m_service = nullptr;
  }

 private:
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
  const auto log = [&] { return TemporaryDirectory::Read(installation.Directory().Path() / "state" / "agent.log"); };
  EXPECT_TRUE(WaitUntil([&] { return log().find("The agent starts") != std::string::npos; })) << log();
  EXPECT_TRUE(WaitUntil([&] { return StatusOf(installation, "mode") == "stand-alone"; }));

  EXPECT_TRUE(service.Stop());
  EXPECT_TRUE(service.WaitFor(SERVICE_STOPPED));
  EXPECT_EQ(service.ExitCode(), static_cast<DWORD>(NO_ERROR));
  EXPECT_THAT(log(), HasSubstr("The agent stops."));
  service.Close();
  EXPECT_EQ(installation.Run({"service", "remove"}).output, "removed: SorvexAgent\n");
  EXPECT_EQ(installation.Run({"service", "remove"}).status, 1);
}

TEST(RunService, IsNotRunByAnybodyElse) {
  const Installation installation;
  const ProcessResult result = installation.Run({"service", "run"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("StartServiceCtrlDispatcher"));
}

}  // namespace
}  // namespace sorvex::test
