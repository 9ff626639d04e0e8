// The system's service manager, where programs install themselves with it.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace sorvex::agent {

/// Whether programs of this system do. Without it the operations below throw `std::logic_error`; they throw
/// `std::system_error` when the service manager refuses.
bool AreServicesSupported();

const char* GetServiceName();

/// Has this program started with the system and these arguments, and started again when it fails.
void InstallService(const std::vector<std::string>& arguments);

/// Stops the service, waiting for its end, and removes it.
void RemoveService();

/// Called by the program that the service manager has started: runs `run`, which throws nothing, as the service and
/// returns its exit status. A request to stop is an interrupt of the program.
int RunAsService(const std::function<int()>& run);

/// Tells the service manager, if it has started this program, that the program ends with this status.
void ReportServiceEnd(int status);

}  // namespace sorvex::agent
