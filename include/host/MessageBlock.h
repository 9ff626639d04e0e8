// Message blocks for data.
#pragma once

#include <SorvexCommonExport.h>

#include <ace/Message_Block.h>

#include <cstddef>

namespace WindowsAgentCommon {

/// Returns an empty block of type `MB_DATA` with room for `size` bytes, or null when out of memory. The caller releases
/// it with `release()`.
SORVEXCOMMON_EXPORT ACE_Message_Block* CreateDataMessageBlock(std::size_t size);

}  // namespace WindowsAgentCommon
