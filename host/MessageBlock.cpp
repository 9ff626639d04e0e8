#include <host/MessageBlock.h>

#include <ace/Malloc_Base.h>

#include <cstdint>
#include <new>

namespace WindowsAgentCommon {

ACE_Message_Block* CreateDataMessageBlock(std::size_t size) {
  // The buffer follows its data block in one allocation, because blocks are made once per event. The data block does
  // not own the buffer (DONT_DELETE); with the last reference this allocator frees both.
  ACE_Allocator* allocator = ACE_Allocator::instance();
  if (size > SIZE_MAX - sizeof(ACE_Data_Block)) return nullptr;
  void* const memory = allocator->malloc(sizeof(ACE_Data_Block) + size);
  if (memory == nullptr) return nullptr;
  char* const buffer = static_cast<char*>(memory) + sizeof(ACE_Data_Block);
  auto* const data = new (memory) ACE_Data_Block(size, ACE_Message_Block::MB_DATA, buffer, allocator, nullptr,
                                                 ACE_Message_Block::DONT_DELETE, allocator);
  auto* const block = new (std::nothrow) ACE_Message_Block(data);
  if (block == nullptr) data->release();
  return block;
}

}  // namespace WindowsAgentCommon
