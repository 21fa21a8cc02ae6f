// Objects' headers (version 2 of HDF5's format): their checksums, before HDF5 reads them.
#include "sn_checksum.h"
#include "sn_disk_file.h"

#include <cstring>

namespace Tessaly
{
namespace Snapshot
{

namespace
{

constexpr u32 kSignatureBytes = 4;
constexpr u8 kContinuationMessage = 16; // tells where another chunk is: eight bytes for its offset, eight for its size

u64 ReadNumber(const u8 *bytes, ureg byteCount)
{
    u64 number = 0;
    std::memcpy(&number, bytes, byteCount);
    return number;
}

} // namespace

bool CDiskFile::IsHeaderIntact(u64 offset)
{
    u8 head[6];
    if (m_IsWritten || !Read(offset, head, sizeof(head)) || std::memcmp(head, "OHDR", kSignatureBytes) != 0)
        return true;
    // Signature, version, flags; times and limits where the flags say so; the size of the messages; them.
    const u8 flags = head[5];
    const ureg sizeAt = sizeof(head) + ((flags & 0x20) != 0 ? 16 : 0) + ((flags & 0x10) != 0 ? 4 : 0);
    const ureg sizeBytes = ureg(1) << (flags & 3), messageHeadBytes = (flags & 0x04) != 0 ? 6 : 4;
    u8 size[8];
    if (!Read(offset + sizeAt, size, sizeBytes))
        return false;
    const u64 messagesAt = sizeAt + sizeBytes, messageBytes = ReadNumber(size, sizeBytes);
    if (messageBytes > m_Size)
        return false;
    SHeaderChunk chunks[kMaxHeaderChunks] = {{offset, messagesAt + messageBytes, messagesAt}};
    u32 chunkCount = 1;
    for (u32 i = 0; i < chunkCount; ++i)
    {
        if (!_CheckHeaderChunk(chunks[i], messageHeadBytes, chunks, chunkCount))
            return false;
    }
    return true;
}

// Tests the checksum of one chunk, and appends those that continue it.
bool CDiskFile::_CheckHeaderChunk(const SHeaderChunk &chunk, ureg messageHeadBytes, SHeaderChunk *chunks,
                                  u32 &chunkCount)
{
    CReason refused;
    CBytes bytes;
    if (chunk.m_ByteCount > m_Size || !bytes.Alloc(chunk.m_ByteCount + kSignatureBytes, refused) ||
        !Read(chunk.m_Offset, bytes.Data(), chunk.m_ByteCount + sizeof(u32)) ||
        ReadNumber(bytes.Data() + chunk.m_ByteCount, sizeof(u32)) != HeaderChecksum(bytes.Data(), chunk.m_ByteCount))
        return false;
    for (u64 at = chunk.m_MessagesAt; at + messageHeadBytes <= chunk.m_ByteCount;)
    {
        const u8 *message = bytes.Data() + at;
        const u64 messageBytes = ReadNumber(message + 1, 2);
        at += messageHeadBytes + messageBytes;
        if (message[0] != kContinuationMessage || at > chunk.m_ByteCount || messageBytes < 16)
            continue;
        const u64 nextBytes = ReadNumber(message + messageHeadBytes + 8, 8);
        if (chunkCount == kMaxHeaderChunks || nextBytes < kSignatureBytes + sizeof(u32))
            return false;
        chunks[chunkCount++] = {ReadNumber(message + messageHeadBytes, 8), nextBytes - sizeof(u32), kSignatureBytes};
    }
    return true;
}

} // namespace Snapshot
} // namespace Tessaly
