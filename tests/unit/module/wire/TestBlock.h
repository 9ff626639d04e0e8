// Message blocks of texts.
#pragma once

#include "wire/SharedBlock.h"

#include <memory>
#include <string>
#include <string_view>

namespace SSLConfigServerProto {

/// A block of `content`, all of it unread.
inline std::shared_ptr<ACE_Message_Block> MakeBlock(std::string_view content) {
  auto block = MakeSharedBlock(content.size());
  block->copy(content.data(), content.size());
  return block;
}

/// The unread bytes.
inline std::string Content(const std::shared_ptr<ACE_Message_Block>& block) {
  return block ? std::string(block->rd_ptr(), block->length()) : "no block";
}

}  // namespace SSLConfigServerProto
