// Links the exported class and loads the module, as another program would. Arguments: the module and a configuration
// directory. 0 when everything works, otherwise the number of the step that does not.
#include <CommunicationAPI/SSLProtocolList.h>
#include <SorvexHost/ComponentFactory.h>
#include <SorvexHost/Directories.h>
#include <ace/Init_ACE.h>
#include <ace/SSL/SSL_Context.h>
#include <host/IConnectionFactory.h>
#include <host/LoggerFactory.h>
#include <host/ServiceLookup.h>
#include <host/Text.h>

#include <openssl/ssl.h>

using namespace WindowsAgentCommon;

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  ACE::init();
  SetConfigPath(Utf8ToWide(argv[2]));
  ComponentFactory components;
  components.RegisterBuiltInServices();
  components.RegisterService(IConnectionFactory::GetServiceName(), argv[1], "ConnectionFactory");
  components.Install();
  if (!components.LoadService(IConnectionFactory::GetServiceName())) return 3;
  auto* const factory = GetService<IConnectionFactory>();
  ServiceConfig config;
  if (factory == nullptr || factory->Initialize(config) != SERVICE_INITIALIZE_READY) return 4;

  VaroCommunicationAPI::SSLProtocolList protocols;
  if (!protocols.setRange("TLSv1.2", "TLSv1.2", LoggerFactory::GetLogger("consumer"))) return 5;
  {
    std::shared_ptr<IRawSocket> socket;
    factory->CreateSSLSocket(SOCKET_FLAG_STREAM | SOCKET_FLAG_INTERNET | SOCKET_FLAG_RAW, protocols, socket);
    if (socket == nullptr) return 6;
  }
  factory->Shutdown();
  return 0;
}
