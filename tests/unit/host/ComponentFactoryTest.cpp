#include <SorvexHost/ComponentFactory.h>
#include <host/IPayloadFactory.h>
#include <host/ISecurityManager.h>
#include <host/IStatisticsServer.h>
#include <host/ServiceLookup.h>

#include <support/RecordingLogger.h>
#include <support/TemporaryDirectory.h>
#include <support/WaitUntil.h>

#include <ace/DLL_Manager.h>
#include <ace/Dynamic_Service_Dependency.h>
#include <ace/Service_Config.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace WindowsAgentCommon {
namespace {

using sorvex::test::RecordingLogger;
using sorvex::test::TemporaryDirectory;
using sorvex::test::WaitUntil;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

std::filesystem::path PluginPath() { return WideToPath(Utf8ToWide(HOST_TEST_PLUGIN)); }

/// During its lifetime a library is unloaded as soon as nobody holds it; otherwise it stays until the process ends.
class EagerUnloading {
 public:
  EagerUnloading() { ACE_DLL_Manager::instance()->unload_policy(ACE_DLL_UNLOAD_POLICY_PER_PROCESS); }
  ~EagerUnloading() { ACE_DLL_Manager::instance()->unload_policy(m_previous); }
  EagerUnloading(const EagerUnloading&) = delete;
  EagerUnloading& operator=(const EagerUnloading&) = delete;

 private:
  const u_long m_previous = ACE_DLL_Manager::instance()->unload_policy();
};

/// A factory with the built-in services registered and the statistics server loaded, with which the plug-in counts.
class ComponentFactoryTest : public testing::Test {
 protected:
  ComponentFactoryTest() {
    m_factory.emplace();
    m_factory->RegisterBuiltInServices();
    m_factory->Install();
    EXPECT_TRUE(m_factory->LoadService("IStatisticsServer"));
  }

  std::uint64_t Counted(const std::string& name) const { return GetService<IStatisticsServer>()->GetValue(name); }

  RecordingLogger m_log;
  std::optional<ComponentFactory> m_factory;
};

TEST(ComponentFactory, IsNotInstalledByItself) {
  const ComponentFactory factory;
  EXPECT_EQ(GetComponentFactory(), nullptr);
}

TEST(ComponentFactory, InstallMakesItTheProcessesFactory) {
  ComponentFactory factory;
  factory.Install();
  EXPECT_EQ(GetComponentFactory(), &factory);
}

TEST(ComponentFactory, DestructorUninstalls) {
  { ComponentFactory().Install(); }
  EXPECT_EQ(GetComponentFactory(), nullptr);
}

TEST(ComponentFactory, DestructorLeavesAnotherInstalledFactoryInPlace) {
  ComponentFactory second;
  {
    ComponentFactory first;
    first.Install();
    second.Install();
  }
  EXPECT_EQ(GetComponentFactory(), &second);
}

TEST(ComponentFactory, KnowsOnlyRegisteredServices) {
  ComponentFactory factory;
  factory.RegisterService("Known", "some.so", "Some");
  EXPECT_TRUE(factory.IsServiceRegistered("Known"));
  EXPECT_FALSE(factory.IsServiceRegistered("Unknown"));
}

TEST(ComponentFactory, RegistersItsBuiltInServices) {
  ComponentFactory factory;
  EXPECT_FALSE(factory.IsServiceRegistered("IPayloadFactory"));
  factory.RegisterBuiltInServices();
  EXPECT_TRUE(factory.IsServiceRegistered("IPayloadFactory"));
  EXPECT_TRUE(factory.IsServiceRegistered("IStatisticsServer"));
}

TEST(ComponentFactory, ReturnsTheConfigurationObjectItself) {
  ComponentFactory factory;
  ServiceConfig config;
  config.m_strName = "AgentCore";
  config.m_strDescription = "first";
  factory.SetServiceConfig(config);
  ASSERT_NE(factory.GetServiceConfig("AgentCore"), nullptr);
  factory.GetServiceConfig("AgentCore")->m_parameters.emplace("Key", "Value");
  EXPECT_EQ(factory.GetServiceConfig("AgentCore")->m_parameters.count("Key"), 1U);
}

TEST(ComponentFactory, ReplacesAConfigurationOfTheSameName) {
  ComponentFactory factory;
  ServiceConfig config;
  config.m_strName = "AgentCore";
  config.m_strDescription = "first";
  factory.SetServiceConfig(config);
  config.m_strDescription = "second";
  factory.SetServiceConfig(config);
  EXPECT_EQ(factory.GetServiceConfig("AgentCore")->m_strDescription, "second");
}

TEST(ComponentFactory, HasNoConfigurationOfAnUnknownComponent) {
  ComponentFactory factory;
  EXPECT_EQ(factory.GetServiceConfig("Nobody"), nullptr);
}

TEST_F(ComponentFactoryTest, LoadedBuiltInServiceCanBeLookedUp) {
  EXPECT_EQ(GetService<IPayloadFactory>(), nullptr);
  EXPECT_TRUE(m_factory->LoadService("IPayloadFactory"));
  EXPECT_NE(GetService<IPayloadFactory>(), nullptr);
}

TEST_F(ComponentFactoryTest, LoadingALoadedServiceKeepsIt) {
  GetService<IStatisticsServer>()->Add("kept", 7);
  EXPECT_TRUE(m_factory->LoadService("IStatisticsServer"));
  EXPECT_EQ(Counted("kept"), 7U);
}

TEST_F(ComponentFactoryTest, ServiceDependencyWorksForABuiltInService) {
  const ACE_Dynamic_Service_Dependency dependency(ACE_Service_Config::current(), "IStatisticsServer_Dynamic_Service");
  EXPECT_NE(GetService<IStatisticsServer>(), nullptr);
}

TEST_F(ComponentFactoryTest, UnloadRemovesAService) {
  m_factory->UnloadService("IStatisticsServer");
  EXPECT_EQ(GetService<IStatisticsServer>(), nullptr);
}

TEST_F(ComponentFactoryTest, UnloadOfWhatIsNotLoadedIsHarmless) {
  m_factory->UnloadService("IPayloadFactory");
  m_factory->UnloadService("NeverHeardOf");
  EXPECT_NE(GetService<IStatisticsServer>(), nullptr);
}

TEST_F(ComponentFactoryTest, UnloadedServiceCanBeLoadedAgain) {
  m_factory->UnloadService("IStatisticsServer");
  EXPECT_TRUE(m_factory->LoadService("IStatisticsServer"));
  EXPECT_NE(GetService<IStatisticsServer>(), nullptr);
}

TEST_F(ComponentFactoryTest, DestructorUnloadsWhatItLoaded) {
  m_factory.reset();
  EXPECT_EQ(GetService<IStatisticsServer>(), nullptr);
}

TEST_F(ComponentFactoryTest, DestructorLeavesAServiceThatAnotherFactoryLoaded) {
  m_factory->UnloadService("IStatisticsServer");
  ComponentFactory second;
  second.RegisterBuiltInServices();
  EXPECT_TRUE(second.LoadService("IStatisticsServer"));
  m_factory.reset();
  EXPECT_NE(GetService<IStatisticsServer>(), nullptr);
}

TEST_F(ComponentFactoryTest, SecondFactoryWorksAfterTheFirst) {
  m_factory.reset();
  ComponentFactory second;
  second.RegisterBuiltInServices();
  second.RegisterService("ISecurityManager", PluginPath(), "CountingService");
  EXPECT_TRUE(second.LoadService("IStatisticsServer"));
  EXPECT_TRUE(second.LoadService("ISecurityManager"));
  EXPECT_EQ(Counted("init"), 1U);
}

TEST_F(ComponentFactoryTest, LoadsAServiceFromAModule) {
  m_factory->RegisterService("ISecurityManager", PluginPath(), "CountingService");
  ASSERT_TRUE(m_factory->LoadService("ISecurityManager"));
  ASSERT_NE(GetService<ISecurityManager>(), nullptr);
  EXPECT_TRUE(GetService<ISecurityManager>()->IsTlsReady());
}

TEST_F(ComponentFactoryTest, InitialisesALoadedServiceOnceAndWithoutArguments) {
  m_factory->RegisterService("ISecurityManager", PluginPath(), "CountingService");
  EXPECT_TRUE(m_factory->LoadService("ISecurityManager"));
  EXPECT_TRUE(m_factory->LoadService("ISecurityManager"));
  EXPECT_EQ(Counted("init"), 1U);
  EXPECT_EQ(Counted("init with arguments"), 0U);
}

TEST_F(ComponentFactoryTest, UnloadFinalisesAndDestroysAService) {
  m_factory->RegisterService("ISecurityManager", PluginPath(), "CountingService");
  EXPECT_TRUE(m_factory->LoadService("ISecurityManager"));
  m_factory->UnloadService("ISecurityManager");
  EXPECT_EQ(Counted("fini"), 1U);
  EXPECT_EQ(Counted("destroyed"), 1U);
  EXPECT_EQ(GetService<ISecurityManager>(), nullptr);
}

TEST_F(ComponentFactoryTest, TwoServicesOfOneModuleAreIndependent) {
  m_factory->RegisterService("First", PluginPath(), "CountingService");
  m_factory->RegisterService("Second", PluginPath(), "CountingService");
  EXPECT_TRUE(m_factory->LoadService("First"));
  EXPECT_TRUE(m_factory->LoadService("Second"));
  m_factory->UnloadService("First");
  EXPECT_EQ(Counted("destroyed"), 1U);
  ASSERT_NE(_getService("Second"), nullptr);
  m_factory->UnloadService("Second");
  EXPECT_EQ(Counted("destroyed"), 2U);
}

TEST_F(ComponentFactoryTest, ModuleCanBeLoadedAgainAfterItWasUnloaded) {
  m_factory->RegisterService("ISecurityManager", PluginPath(), "CountingService");
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(m_factory->LoadService("ISecurityManager"));
    m_factory->UnloadService("ISecurityManager");
  }
  EXPECT_EQ(Counted("init"), 3U);
  EXPECT_EQ(Counted("destroyed"), 3U);
}

TEST_F(ComponentFactoryTest, ServiceDependencyKeepsTheModuleOfAnUnloadedServiceInMemory) {
  m_factory->RegisterService("ISecurityManager", PluginPath(), "CountingService");
  EXPECT_TRUE(m_factory->LoadService("ISecurityManager"));
  const ACE_Service_Type* record = nullptr;
  ACE_Service_Repository* repository = ACE_Service_Config::current()->current_service_repository();
  ASSERT_EQ(repository->find("ISecurityManager_Dynamic_Service", &record), 0);
  const ACE_DLL library = record->dll();
  {
    const ACE_Dynamic_Service_Dependency dependency(ACE_Service_Config::current(), "ISecurityManager_Dynamic_Service");
    m_factory->UnloadService("ISecurityManager");
    EXPECT_EQ(Counted("destroyed"), 1U);
    EXPECT_TRUE(m_factory->LoadService("ISecurityManager"));
  }
  EXPECT_NE(ACE_DLL(library).symbol("_make_CountingService", 1), nullptr);
  EXPECT_TRUE(GetService<ISecurityManager>()->IsTlsReady());
}

TEST_F(ComponentFactoryTest, DestructorUnloadsTheLastLoadedFirst) {
  // The order of destruction, from the log: each service logs its own name.
  m_factory->RegisterService("First", PluginPath(), "FirstFarewellService");
  m_factory->RegisterService("Second", PluginPath(), "SecondFarewellService");
  EXPECT_TRUE(m_factory->LoadService("First"));
  EXPECT_TRUE(m_factory->LoadService("Second"));
  m_factory.reset();
  EXPECT_THAT(m_log->Lines(), ElementsAre("Info Second ends", "Info First ends"));
}

TEST_F(ComponentFactoryTest, LoadsAModuleWhosePathHoldsBlanksAndOtherCharacters) {
  // No name contains a quotation mark where the backslash separates names.
  const std::string quotes = std::filesystem::path::preferred_separator == '/' ? "'a\" b" : "'a b";
  const TemporaryDirectory directory(
      "Gr\xC3\xB6\xC3\x9F"
      "e \xE6\x97\xA5\xE6\x9C\xAC " +
      quotes);
  const std::filesystem::path copy =
      directory.Path() / WideToPath(Utf8ToWide("plug in \xC3\xA4 \xF0\x9F\x98\x80.module"));
  std::filesystem::copy_file(PluginPath(), copy);
  m_factory->RegisterService("ISecurityManager", copy, "CountingService");
  EXPECT_TRUE(m_factory->LoadService("ISecurityManager"));
  EXPECT_NE(GetService<ISecurityManager>(), nullptr);
  EXPECT_THAT(m_log->Lines(), ElementsAre());
  m_factory->UnloadService("ISecurityManager");
}

TEST_F(ComponentFactoryTest, UnregisteredServiceIsRefusedWithOneError) {
  EXPECT_FALSE(m_factory->LoadService("Nothing"));
  EXPECT_THAT(m_log->Lines(), ElementsAre("Error The service Nothing is not registered."));
}

TEST_F(ComponentFactoryTest, MissingModuleIsRefusedWithOneErrorThatNamesIt) {
  const TemporaryDirectory directory;
  m_factory->RegisterService("Missing", directory.Path() / "no such module", "CountingService");
  EXPECT_FALSE(m_factory->LoadService("Missing"));
  EXPECT_THAT(m_log->Lines(), ElementsAre(AllOf(StartsWith("Error Cannot load the service Missing from "),
                                                HasSubstr("no such module: "))));
  EXPECT_EQ(_getService("Missing"), nullptr);
}

TEST_F(ComponentFactoryTest, FileThatIsNoModuleIsRefusedWithOneError) {
  const TemporaryDirectory directory;
  m_factory->RegisterService("Text", directory.Write("text.so", "not a module"), "CountingService");
  EXPECT_FALSE(m_factory->LoadService("Text"));
  EXPECT_THAT(m_log->Lines(), ElementsAre(HasSubstr("text.so: ")));
}

TEST_F(ComponentFactoryTest, MissingFunctionIsRefusedWithOneErrorThatNamesIt) {
  m_factory->RegisterService("NoFunction", PluginPath(), "NoSuchClass");
  EXPECT_FALSE(m_factory->LoadService("NoFunction"));
  EXPECT_THAT(m_log->Lines(), ElementsAre(HasSubstr(": it has no function _make_NoSuchClass.")));
}

TEST_F(ComponentFactoryTest, FunctionThatReturnsNullIsRefusedWithOneError) {
  m_factory->RegisterService("Null", PluginPath(), "NullService");
  EXPECT_FALSE(m_factory->LoadService("Null"));
  EXPECT_THAT(m_log->Lines(), ElementsAre(HasSubstr(": _make_NullService returned null.")));
}

TEST_F(ComponentFactoryTest, ServiceWhoseInitFailsIsDestroyedWithoutFini) {
  m_factory->RegisterService("Refusing", PluginPath(), "RefusingService");
  EXPECT_FALSE(m_factory->LoadService("Refusing"));
  EXPECT_EQ(Counted("refused"), 1U);
  EXPECT_EQ(Counted("destroyed"), 1U);
  EXPECT_EQ(Counted("fini"), 0U);
  EXPECT_EQ(_getService("Refusing"), nullptr);
  EXPECT_THAT(m_log->Lines(), ElementsAre(HasSubstr(": its init failed.")));
}

TEST_F(ComponentFactoryTest, ServiceMayLoadAnotherWhileItIsLoaded) {
  m_factory->RegisterService("Loading", PluginPath(), "LoadingService");
  EXPECT_TRUE(m_factory->LoadService("Loading"));
  EXPECT_NE(GetService<IPayloadFactory>(), nullptr);
}

TEST_F(ComponentFactoryTest, ServiceCannotLoadItselfWhileItIsLoaded) {
  m_factory->RegisterService("Recursive", PluginPath(), "RecursiveService");
  EXPECT_TRUE(m_factory->LoadService("Recursive"));
  EXPECT_EQ(Counted("recursion refused"), 1U);
  EXPECT_THAT(m_log->Lines(), ElementsAre(HasSubstr(": it is being loaded already.")));
}

TEST_F(ComponentFactoryTest, ExceptionOutOfTheFunctionIsARefusalEachTime) {
  const EagerUnloading eagerly;
  m_factory->RegisterService("Throwing", PluginPath(), "NothingButAnException");
  EXPECT_FALSE(m_factory->LoadService("Throwing"));
  EXPECT_FALSE(m_factory->LoadService("Throwing"));
  const auto refused = HasSubstr(": _make_NothingButAnException threw an exception: no luck.");
  EXPECT_THAT(m_log->Lines(), ElementsAre(refused, refused));
}

TEST_F(ComponentFactoryTest, ExceptionOutOfInitIsARefusalEachTimeAndDestroysTheService) {
  const EagerUnloading eagerly;
  m_factory->RegisterService("Throwing", PluginPath(), "ThrowingService");
  EXPECT_FALSE(m_factory->LoadService("Throwing"));
  EXPECT_FALSE(m_factory->LoadService("Throwing"));
  const auto refused = HasSubstr(": its init threw an exception: no luck.");
  EXPECT_THAT(m_log->Lines(), ElementsAre(refused, refused));
  EXPECT_EQ(Counted("destroyed"), 2U);
  EXPECT_EQ(Counted("fini"), 0U);
  EXPECT_EQ(_getService("Throwing"), nullptr);
}

TEST_F(ComponentFactoryTest, ExceptionOfAnyTypeIsARefusal) {
  m_factory->RegisterService("Throwing", PluginPath(), "OddlyThrowingService");
  EXPECT_FALSE(m_factory->LoadService("Throwing"));
  EXPECT_THAT(m_log->Lines(), ElementsAre(HasSubstr(": its init threw an exception.")));
}

TEST_F(ComponentFactoryTest, ServiceThatThrewOnceMayBeLoadedLater) {
  m_factory->RegisterService("ISecurityManager", PluginPath(), "ThrowingService");
  EXPECT_FALSE(m_factory->LoadService("ISecurityManager"));
  m_factory->RegisterService("ISecurityManager", PluginPath(), "CountingService");
  EXPECT_TRUE(m_factory->LoadService("ISecurityManager"));
}

TEST_F(ComponentFactoryTest, ServiceMayAskTheHostFromAThreadOfItsOwnWhileItIsLoaded) {
  ServiceConfig core;
  core.m_strName = "AgentCore";
  m_factory->SetServiceConfig(core);
  m_factory->RegisterService("Asking", PluginPath(), "AskingService");
  EXPECT_TRUE(m_factory->LoadService("Asking"));
  EXPECT_EQ(Counted("answered"), 1U);
  EXPECT_EQ(Counted("unanswered"), 0U);
}

TEST_F(ComponentFactoryTest, OtherThreadsWaitForTheOneThatLoadsTheService) {
  m_factory->RegisterService("ISecurityManager", PluginPath(), "GatedService");
  const auto load = [this] {
    return m_factory->LoadService("ISecurityManager") && GetService<ISecurityManager>() != nullptr;
  };
  std::future<bool> first = std::async(std::launch::async, load);
  ASSERT_TRUE(WaitUntil([this] { return Counted("at the gate") == 1; }));
  std::vector<std::future<bool>> others;
  std::atomic<int> begun = 0;
  for (int i = 0; i < 4; ++i) {
    others.push_back(std::async(std::launch::async, [&] {
      ++begun;
      return load();
    }));
  }
  ASSERT_TRUE(WaitUntil([&] { return begun == 4; }));
  // Another service is loaded meanwhile.
  EXPECT_TRUE(m_factory->LoadService("IPayloadFactory"));
  GetService<IStatisticsServer>()->Add("gate open", 1);
  EXPECT_TRUE(first.get());
  for (std::future<bool>& other : others) EXPECT_TRUE(other.get());
  EXPECT_EQ(Counted("at the gate"), 1U);
  EXPECT_EQ(Counted("init"), 1U);
}

TEST_F(ComponentFactoryTest, CycleOfServicesIsDetected) {
  m_factory->RegisterService("FirstCyclic", PluginPath(), "FirstCyclicService");
  m_factory->RegisterService("SecondCyclic", PluginPath(), "SecondCyclicService");
  EXPECT_TRUE(m_factory->LoadService("FirstCyclic"));
  EXPECT_EQ(Counted("cycle refused"), 1U);
  EXPECT_EQ(Counted("cycle loaded"), 1U);
  EXPECT_THAT(m_log->Lines(),
              ElementsAre(AllOf(HasSubstr(" FirstCyclic "), HasSubstr(": it is being loaded already."))));
}

TEST_F(ComponentFactoryTest, CycleOfServicesInTwoThreadsIsDetected) {
  m_factory->RegisterService("FirstEntangled", PluginPath(), "FirstEntangledService");
  m_factory->RegisterService("SecondEntangled", PluginPath(), "SecondEntangledService");
  std::future<bool> first = std::async(std::launch::async, [this] { return m_factory->LoadService("FirstEntangled"); });
  EXPECT_TRUE(m_factory->LoadService("SecondEntangled"));
  EXPECT_TRUE(first.get());
  EXPECT_EQ(Counted("cycle refused"), 1U);
  EXPECT_EQ(Counted("cycle loaded"), 1U);
}

TEST_F(ComponentFactoryTest, ServiceThatTheLibraryRegistersAtItsStartHoldsTheLibrary) {
  const EagerUnloading eagerly;
  m_factory->RegisterService("Plain", WideToPath(Utf8ToWide(HOST_TEST_REGISTERING_PLUGIN)), "PlainService");
  ASSERT_TRUE(m_factory->LoadService("Plain"));
  ACE_Service_Repository* repository = ACE_Service_Config::current()->current_service_repository();
  const ACE_Service_Type* record = nullptr;
  ASSERT_EQ(repository->find("RegisteredAtStart", &record), 0);
  EXPECT_TRUE(record->dll().get_handle() != ACE_SHLIB_INVALID_HANDLE);
  m_factory->UnloadService("Plain");
  EXPECT_EQ(repository->remove("RegisteredAtStart"), 0);
}

TEST_F(ComponentFactoryTest, FailuresWriteNothingToStandardError) {
  testing::internal::CaptureStderr();
  m_factory->RegisterService("Missing", "no such module anywhere", "CountingService");
  m_factory->RegisterService("NoFunction", PluginPath(), "NoSuchClass");
  EXPECT_FALSE(m_factory->LoadService("Missing"));
  EXPECT_FALSE(m_factory->LoadService("NoFunction"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ComponentFactoryTest, ManyThreadsLoadAServiceOnce) {
  m_factory->RegisterService("ISecurityManager", PluginPath(), "CountingService");
  std::vector<std::thread> threads;
  std::atomic<int> loaded = 0;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      if (m_factory->LoadService("ISecurityManager") && GetService<ISecurityManager>() != nullptr) ++loaded;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(loaded, 8);
  EXPECT_EQ(Counted("init"), 1U);
}

}  // namespace
}  // namespace WindowsAgentCommon
