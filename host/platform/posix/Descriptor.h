// An open file.
#pragma once

#include <unistd.h>

namespace WindowsAgentCommon {

/// Closed on destruction.
struct Descriptor {
  explicit Descriptor(int opened) : descriptor(opened) {}
  ~Descriptor() { ::close(descriptor); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  const int descriptor;
};

}  // namespace WindowsAgentCommon
