// Message blocks that their last owner releases.
#pragma once

#include <host/MessageBlock.h>

#include <cstddef>
#include <memory>
#include <new>

namespace SSLConfigServerProto {

/// Returns an empty block with room for `size` bytes. Throws `std::bad_alloc` when out of memory.
inline std::shared_ptr<ACE_Message_Block> MakeSharedBlock(std::size_t size) {
  ACE_Message_Block* const block = WindowsAgentCommon::CreateDataMessageBlock(size);
  if (block == nullptr) throw std::bad_alloc();
  return {block, [](ACE_Message_Block* owned) { owned->release(); }};
}

/// Returns a copy of the unread bytes of `block`.
inline std::shared_ptr<ACE_Message_Block> CopyBlock(const ACE_Message_Block& block) {
  auto copy = MakeSharedBlock(block.length());
  copy->copy(block.rd_ptr(), block.length());
  return copy;
}

}  // namespace SSLConfigServerProto
