// MD5 from the system.
#pragma once

#include <SorvexCommonExport.h>

#include <cstddef>
#include <memory>
#include <string>

namespace WindowsAgentCommon {

/// An MD5 computed in parts, for one thread. A system without MD5 gives an empty text.
class SORVEXCOMMON_EXPORT MD5Digest {
 public:
  MD5Digest();
  ~MD5Digest();
  MD5Digest(const MD5Digest&) = delete;
  MD5Digest& operator=(const MD5Digest&) = delete;

  void Add(const void* data, std::size_t size);

  /// Returns the digest of everything added, 32 lower-case hexadecimal digits, or an empty text. Called once, last.
  std::string Finish();

 private:
  struct State;
  std::unique_ptr<State> m_pState;
};

}  // namespace WindowsAgentCommon
