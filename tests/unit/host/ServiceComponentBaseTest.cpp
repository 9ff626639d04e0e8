#include <host/ServiceComponentBase.h>

#include <ace/Service_Object.h>

#include <gtest/gtest.h>

#include <string>

namespace WindowsAgentCommon {
namespace {

class Component : public ServiceComponentBase<IServiceComponent, ACE_Service_Object> {
 public:
  int Initialize(const ServiceConfig& config) override {
    m_serviceConfig = config;
    m_bInitialized = true;
    m_bRestartRequested = true;
    return SERVICE_INITIALIZE_READY;
  }
  std::string GetVersion() const override { return "1.2.3"; }
};

TEST(ServiceComponentBase, BeginsWithEmptyTextsAndClearFlags) {
  const Component component;
  EXPECT_EQ(component.GetServiceConfigText1(), "");
  EXPECT_FALSE(component.IsInitialized());
  EXPECT_FALSE(component.IsRestartRequested());
}

TEST(ServiceComponentBase, GivesBackTheFiveTextsInOrder) {
  Component component;
  EXPECT_EQ(component.Initialize({"Name", "Shown", "What", "module.so", "_make_Entry", {}}), 1);
  EXPECT_EQ(component.GetServiceConfigText1(), "Name");
  EXPECT_EQ(component.GetServiceConfigText2(), "Shown");
  EXPECT_EQ(component.GetServiceConfigText3(), "What");
  EXPECT_EQ(component.GetServiceConfigText4(), "module.so");
  EXPECT_EQ(component.GetServiceConfigText5(), "_make_Entry");
}

TEST(ServiceComponentBase, GivesBackItsFlags) {
  Component component;
  component.Initialize({});
  EXPECT_TRUE(component.IsInitialized());
  EXPECT_TRUE(component.IsRestartRequested());
}

TEST(ServiceComponentBase, HasBothFaces) {
  Component component;
  ACE_Service_Object* const service = &component;
  EXPECT_EQ(dynamic_cast<IServiceComponent*>(service), &component);
}

}  // namespace
}  // namespace WindowsAgentCommon
