#include "wire/HeldData.h"

#include "wire/SharedBlock.h"

#include <host/Digest.h>

namespace SSLConfigServerProto {

void HeldData::Release() {
  m_pBlock.reset();
  m_strMD5.clear();
}

bool HeldData::Take(WireBinary& binary, WireProtocol protocol) {
  if (binary.size_in_bytes == 0) return false;
  switch (protocol) {
    case WireProtocol::Version1:
      m_strMD5 = WindowsAgentCommon::MD5Sum(binary.data->rd_ptr(), binary.data->length());
      break;
    case WireProtocol::Version2: m_strMD5 = GetText(binary.digest); break;
  }
  m_pBlock = GetMessageBlock(binary, true);
  return true;
}

bool HeldData::GetCopy(std::shared_ptr<ACE_Message_Block>& block, std::string& md5) const {
  md5 = m_strMD5;
  block.reset();
  if (m_pBlock) block = CopyBlock(*m_pBlock);
  return block != nullptr;
}

}  // namespace SSLConfigServerProto
