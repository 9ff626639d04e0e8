// The system's service manager, with which programs install themselves.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace sorvex::agent {

/// Whether this system has one for programs to use. Without it the operations below throw `std::logic_error`; they
/// throw `std::system_error` when the service manager refuses.
bool AreServicesSupported();

const char* GetServiceName();

/// Makes the system start this program with these arguments at boot, and again when it fails.
void InstallService(const std::vector<std::string>& arguments);

/// Stops the service, waits for its end, and removes it.
void RemoveService();

/// Called by the program when the service manager has started it: runs `run`, which throws nothing, as the service and
/// returns its exit status. A request to stop is an interrupt of the program.
int RunAsService(const std::function<int()>& run);

/// Reports this exit status to the service manager, if it has started the program.
void ReportServiceEnd(int status);

}  // namespace sorvex::agent
