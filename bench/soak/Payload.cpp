#include "Payload.h"

#include <charconv>

namespace sorvex::soak {

namespace {

char FillerOf(std::uint64_t number) { return static_cast<char>('a' + number % 26); }

/// Removes a number and the blank after it from the front of `text`.
template <class Number>
bool TakeNumber(std::string_view& text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end == text.data() + text.size() || *end != ' ') return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()) + 1);
  return true;
}

}  // namespace

std::string MakePayload(int producer, std::uint64_t number, std::size_t length) {
  std::string payload = std::to_string(producer) + ' ' + std::to_string(number) + ' ' + std::to_string(length) + ' ';
  payload.append(length, FillerOf(number));
  return payload;
}

std::string Journal::Take(std::string_view payload) {
  int producer = 0;
  std::uint64_t number = 0;
  std::size_t length = 0;
  std::string_view rest = payload;
  const bool isWhole = TakeNumber(rest, producer) && TakeNumber(rest, number) && TakeNumber(rest, length) &&
                       rest.size() == length && rest.find_first_not_of(FillerOf(number)) == std::string_view::npos;
  ++m_payloads;
  if (!isWhole) return "torn: '" + std::string(payload.substr(0, 60)) + "'";
  std::uint64_t& next = m_next[producer];
  std::string problem;
  if (number < next) {
    problem = "doubled or out of order: producer " + std::to_string(producer) + " sent " + std::to_string(number) +
              " after " + std::to_string(next - 1);
  }
  next = number + 1;
  return problem;
}

}  // namespace sorvex::soak
