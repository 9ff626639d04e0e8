#include <Output.h>

#include <host/Log.h>

#include <array>
#include <cstdio>

namespace sorvex::agent {
namespace {

std::string Escape(std::string_view text) {
  const WindowsAgentCommon::LogArgument argument(text);
  return WindowsAgentCommon::FormatText("%s", &argument, 1, true);
}

}  // namespace

void PrintValue(std::string_view key, std::string_view value) {
  const std::string line = Escape(key) + ": " + Escape(value) + "\n";
  std::fwrite(line.data(), 1, line.size(), stdout);
}

void PrintNumber(std::string_view key, std::int64_t value) { PrintValue(key, std::to_string(value)); }

void PrintBoolean(std::string_view key, bool value) { PrintValue(key, value ? "true" : "false"); }

void PrintDecimal(std::string_view key, double value) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.3f", value);
  PrintValue(key, text.data());
}

void PrintError(std::string_view text) {
  const std::string line = "sorvex-agent: " + Escape(text) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

bool FlushOutput() { return std::fflush(stdout) == 0 && std::ferror(stdout) == 0; }

}  // namespace sorvex::agent
