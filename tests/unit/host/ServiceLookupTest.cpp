#include <host/ServiceLookup.h>

#include <SorvexHost/ComponentFactory.h>
#include <host/IPayloadFactory.h>
#include <host/ISecurityManager.h>
#include <host/IStatisticsServer.h>

#include <ace/Service_Config.h>

#include <gtest/gtest.h>

namespace WindowsAgentCommon {
namespace {

/// An interface with another service's name.
class Impostor {
 public:
  virtual ~Impostor() = default;
  static const char* GetServiceName() { return "IStatisticsServer"; }
};

TEST(ServiceLookup, ReturnsNullWithoutSuchAService) {
  EXPECT_EQ(_getService("NoSuchService"), nullptr);
  EXPECT_EQ(GetService<ISecurityManager>(), nullptr);
}

TEST(ServiceLookup, ReturnsNullForANullName) { EXPECT_EQ(_getService(nullptr), nullptr); }

TEST(ServiceLookup, FindsALoadedServiceByItsInterface) {
  ComponentFactory factory;
  factory.RegisterBuiltInServices();
  ASSERT_TRUE(factory.LoadService("IPayloadFactory"));
  EXPECT_EQ(dynamic_cast<IPayloadFactory*>(_getService("IPayloadFactory")), GetService<IPayloadFactory>());
  EXPECT_NE(GetService<IPayloadFactory>(), nullptr);
}

TEST(ServiceLookup, ReturnsNullWhenTheServiceIsSomethingElse) {
  ComponentFactory factory;
  factory.RegisterBuiltInServices();
  ASSERT_TRUE(factory.LoadService("IStatisticsServer"));
  EXPECT_NE(_getService("IStatisticsServer"), nullptr);
  EXPECT_EQ(GetService<Impostor>(), nullptr);
}

TEST(ServiceLookup, SkipsASuspendedService) {
  ComponentFactory factory;
  factory.RegisterBuiltInServices();
  ASSERT_TRUE(factory.LoadService("IStatisticsServer"));
  ASSERT_EQ(ACE_Service_Config::current()->suspend("IStatisticsServer_Dynamic_Service"), 0);
  EXPECT_EQ(GetService<IStatisticsServer>(), nullptr);
  ASSERT_EQ(ACE_Service_Config::current()->resume("IStatisticsServer_Dynamic_Service"), 0);
  EXPECT_NE(GetService<IStatisticsServer>(), nullptr);
}

}  // namespace
}  // namespace WindowsAgentCommon
