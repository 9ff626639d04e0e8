// The module exports what it promises and nothing else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

/// The names of the dynamic symbols that the module defines, sorted.
std::vector<std::string> ReadExports() {
  const std::string command = "'" SORVEX_NM "' -D --defined-only '" COMMUNICATION_API_MODULE "'";
  const std::unique_ptr<FILE, int (*)(FILE*)> output(popen(command.c_str(), "r"), &pclose);
  std::string text;
  std::array<char, 4096> buffer{};
  while (output) {
    const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), output.get());
    if (count == 0) break;
    text.append(buffer.data(), count);
  }
  std::vector<std::string> names;
  std::istringstream lines(text);
  std::string address;
  std::string kind;
  std::string name;
  while (lines >> address >> kind >> name) names.push_back(name);
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> ReadList() {
  std::ifstream file(EXPORT_LIST);
  std::vector<std::string> names;
  for (std::string name; file >> name;) names.push_back(name);
  return names;
}

TEST(ModuleExports, EqualTheCommittedList) {
  const std::vector<std::string> list = ReadList();
  ASSERT_FALSE(list.empty()) << "cannot read " EXPORT_LIST;
  EXPECT_EQ(ReadExports(), list);
}

}  // namespace
