// What the soak's producers send: payloads that show their origin and whether they are whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace sorvex::soak {

/// Returns the payload with that number, about `length` bytes, without a line feed.
std::string MakePayload(int producer, std::uint64_t number, std::size_t length);

/// Checks what one destination's receiver got over all its connections.
class Journal {
 public:
  /// Takes one payload. Returns what is wrong with it, or an empty text.
  std::string Take(std::string_view payload);

  std::uint64_t Payloads() const { return m_payloads; }

 private:
  std::uint64_t m_payloads = 0;
  std::map<int, std::uint64_t> m_next;  ///< the lowest number that may come, by producer
};

}  // namespace sorvex::soak
