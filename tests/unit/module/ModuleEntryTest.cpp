// The function with which the service configurator makes the component, and the one that destroys it.
#include "factory/ConnectionFactory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

extern "C" ACE_Service_Object* _make_ConnectionFactory(ACE_Service_Object_Exterminator* gobbler);

namespace {

/// Allocations of this thread that still succeed; below zero, all do.
thread_local int allocationsLeft = -1;

bool IsAllocationRefused() {
  if (allocationsLeft < 0) return false;
  return allocationsLeft-- == 0;
}

}  // namespace

#if defined(__GNUC__) && !defined(__clang__)
// The compiler sees that `delete` frees memory from `new`, and takes it for a mistake.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
  if (IsAllocationRefused()) {
    allocationsLeft = 0;
    throw std::bad_alloc();
  }
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return IsAllocationRefused() ? nullptr : std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

TEST(ModuleEntry, MakesConnectionFactory) {
  ACE_Service_Object_Exterminator destroy = nullptr;
  ACE_Service_Object* const component = _make_ConnectionFactory(&destroy);
  ASSERT_NE(destroy, nullptr);
  EXPECT_NE(dynamic_cast<WindowsAgentCommon::IConnectionFactory*>(component), nullptr);
  destroy(component);
}

TEST(ModuleEntry, MakesNewObjectEachTime) {
  ACE_Service_Object_Exterminator destroy = nullptr;
  ACE_Service_Object* const first = _make_ConnectionFactory(&destroy);
  ACE_Service_Object* const second = _make_ConnectionFactory(&destroy);
  EXPECT_NE(first, second);
  destroy(first);
  destroy(second);
}

TEST(ModuleEntry, WorksWithoutPlaceForExterminator) {
  ACE_Service_Object* const component = _make_ConnectionFactory(nullptr);
  EXPECT_NE(component, nullptr);
  delete component;
}

TEST(ModuleEntry, ReturnsNullWithoutMemoryForObject) {
  allocationsLeft = 0;
  ACE_Service_Object* const component = _make_ConnectionFactory(nullptr);
  allocationsLeft = -1;
  EXPECT_EQ(component, nullptr);
}

TEST(ModuleEntry, ReturnsNullWithoutMemoryForItsParts) {
  allocationsLeft = 1;
  ACE_Service_Object* const component = _make_ConnectionFactory(nullptr);
  allocationsLeft = -1;
  EXPECT_EQ(component, nullptr);
}

TEST(ModuleEntry, GivesExterminatorAlsoWithoutMemory) {
  ACE_Service_Object_Exterminator destroy = nullptr;
  allocationsLeft = 0;
  _make_ConnectionFactory(&destroy);
  allocationsLeft = -1;
  EXPECT_NE(destroy, nullptr);
}

TEST(ModuleEntryDeathTest, ExterminatorAssertsThatThereIsAnObject) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ACE_Service_Object_Exterminator destroy = nullptr;
  ACE_Service_Object* const component = _make_ConnectionFactory(&destroy);
#if defined(ACE_NDEBUG)
  // Some release builds of ACE have no assertions; there is nothing to destroy then.
  destroy(nullptr);
#else
  EXPECT_DEATH(destroy(nullptr), "_p != 0");
#endif
  destroy(component);
}

TEST(ModuleEntry, ComponentKeepsAceFaceOfHostBase) {
  ACE_Service_Object* const component = _make_ConnectionFactory(nullptr);
  EXPECT_EQ(component->init(0, nullptr), 0);
  EXPECT_EQ(component->fini(), 0);
  EXPECT_EQ(component->suspend(), 0);
  EXPECT_EQ(component->resume(), 0);
  delete component;
}

}  // namespace
