#include <platform/Service.h>

#include <stdexcept>

namespace sorvex::agent {
namespace {

[[noreturn]] void Refuse() { throw std::logic_error("programs of this system do not install themselves as services"); }

}  // namespace

bool AreServicesSupported() { return false; }

const char* GetServiceName() { return "sorvex-agent"; }

void InstallService(const std::vector<std::string>&) { Refuse(); }

void RemoveService() { Refuse(); }

int RunAsService(const std::function<int()>&) { Refuse(); }

void ReportServiceEnd(int) {}

}  // namespace sorvex::agent
