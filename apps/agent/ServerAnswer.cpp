#include <ServerAnswer.h>

namespace sorvex::agent {
namespace {

ServerAnswer OfWireResult(std::int32_t code) {
  switch (code) {
    case 5: return ServerAnswer::NoUpdate;
    case 7: return ServerAnswer::UpdatesDisabled;
    default: return code < 0 ? ServerAnswer::Failure : ServerAnswer::Success;
  }
}

ServerAnswer OfHttpStatus(std::int32_t status) {
  switch (status) {
    case 200: return ServerAnswer::Success;
    case 204: return ServerAnswer::UpdatesDisabled;
    case 404: return ServerAnswer::NotFound;
    default: return ServerAnswer::Failure;
  }
}

}  // namespace

ServerAnswer LastAnswer(const ServerConnection& connection) {
  const std::int32_t code = connection->GetLastResultCode();
  if (connection.Mode() != ConnectionMode::Https) return OfWireResult(code);
  // A status may have arrived even though the answer is incomplete.
  return connection->GetLastErrorCode() == 0 ? OfHttpStatus(code) : ServerAnswer::Failure;
}

}  // namespace sorvex::agent
