#include <platform/Service.h>

#include <platform/Platform.h>

#include <host/Text.h>

#include <windows.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <type_traits>

namespace sorvex::agent {
namespace {

constexpr const wchar_t* serviceName = L"SorvexAgent";
constexpr const wchar_t* displayName = L"Sorvex Agent";
constexpr const wchar_t* description = L"Collects logs and forwards them.";

/// How long a stop may take before the service manager considers it hung.
constexpr DWORD stopHintMs = 5000;
constexpr DWORD restartPauseMs = 60'000;
constexpr DWORD lookIntervalMs = 100;
constexpr int looks = 100;

struct CloseServiceHandleOf {
  void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using ServiceHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, CloseServiceHandleOf>;

[[noreturn]] void ThrowLastError(const char* what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

ServiceHandle Checked(SC_HANDLE handle, const char* what) {
  if (handle == nullptr) ThrowLastError(what);
  return ServiceHandle(handle);
}

/// One argument, quoted for the C runtime's parser.
std::wstring Quote(const std::wstring& argument) {
  std::wstring quoted = L"\"";
  std::size_t backslashes = 0;
  for (const wchar_t character : argument) {
    if (character == L'\\') {
      backslashes += 1;
      continue;
    }
    // Those before a quotation mark are taken in pairs.
    quoted.append(character == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
    backslashes = 0;
    quoted += character;
  }
  return quoted.append(2 * backslashes, L'\\') + L"\"";
}

std::wstring GetProgram() {
  std::wstring name(32768, L'\0');
  const DWORD length = GetModuleFileNameW(nullptr, name.data(), static_cast<DWORD>(name.size()));
  if (length == 0) ThrowLastError("GetModuleFileName");
  name.resize(length);
  return name;
}

/// What the service manager's callbacks work with. A program has one service.
struct RunningService {
  std::atomic<SERVICE_STATUS_HANDLE> handle{nullptr};
  const std::function<int()>* run = nullptr;
  int status = 1;
};

RunningService& TheService() {
  static RunningService service;
  return service;
}

void Report(DWORD state, int exitStatus = 0) {
  SERVICE_STATUS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
  status.dwWin32ExitCode = exitStatus == 0 ? NO_ERROR : ERROR_SERVICE_SPECIFIC_ERROR;
  status.dwServiceSpecificExitCode = static_cast<DWORD>(exitStatus);
  status.dwWaitHint = state == SERVICE_STOP_PENDING ? stopHintMs : 0;
  SetServiceStatus(TheService().handle, &status);
}

DWORD WINAPI HandleControl(DWORD control, DWORD, void*, void*) {
  switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
      Report(SERVICE_STOP_PENDING);
      Interrupt();
      return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE: return NO_ERROR;
    default: return ERROR_CALL_NOT_IMPLEMENTED;
  }
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
  RunningService& service = TheService();
  service.handle = RegisterServiceCtrlHandlerExW(serviceName, HandleControl, nullptr);
  if (service.handle.load() == nullptr) return;
  Report(SERVICE_RUNNING);
  service.status = (*service.run)();
  ReportServiceEnd(service.status);
}

}  // namespace

bool AreServicesSupported() { return true; }

const char* GetServiceName() { return "SorvexAgent"; }

void InstallService(const std::vector<std::string>& arguments) {
  std::wstring command = Quote(GetProgram());
  for (const std::string& argument : arguments) command += L" " + Quote(WindowsAgentCommon::Utf8ToWide(argument));
  const ServiceHandle manager = Checked(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE), "OpenSCManager");
  const ServiceHandle service =
      Checked(CreateServiceW(manager.get(), serviceName, displayName, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                             SERVICE_AUTO_START, SERVICE_ERROR_NORMAL, command.c_str(), nullptr, nullptr, nullptr,
                             nullptr, nullptr),
              "CreateService");
  std::wstring text = description;
  SERVICE_DESCRIPTIONW descriptionInfo{text.data()};
  ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_DESCRIPTION, &descriptionInfo);
  SC_ACTION restart{SC_ACTION_RESTART, restartPauseMs};
  SERVICE_FAILURE_ACTIONSW actions{};
  actions.dwResetPeriod = INFINITE;
  actions.cActions = 1;
  actions.lpsaActions = &restart;
  ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, &actions);
}

void RemoveService() {
  const ServiceHandle manager = Checked(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT), "OpenSCManager");
  const ServiceHandle service =
      Checked(OpenServiceW(manager.get(), serviceName, SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE), "OpenService");
  SERVICE_STATUS status{};
  ControlService(service.get(), SERVICE_CONTROL_STOP, &status);
  for (int look = 0; look < looks; ++look) {
    if (QueryServiceStatus(service.get(), &status) && status.dwCurrentState == SERVICE_STOPPED) break;
    Sleep(lookIntervalMs);
  }
  if (!DeleteService(service.get())) ThrowLastError("DeleteService");
}

int RunAsService(const std::function<int()>& run) {
  TheService().run = &run;
  std::wstring name = serviceName;
  const SERVICE_TABLE_ENTRYW table[] = {{name.data(), ServiceMain}, {nullptr, nullptr}};
  if (!StartServiceCtrlDispatcherW(table)) ThrowLastError("StartServiceCtrlDispatcher");
  return TheService().status;
}

void ReportServiceEnd(int status) {
  if (TheService().handle.load() != nullptr) Report(SERVICE_STOPPED, status);
}

}  // namespace sorvex::agent
