// Checks the checksums of HDF5's object headers (version 2) before HDF5 reads them.
#include "sn_disk_file.h"

#include <cstring>

namespace Tessaly::Snapshot
{

namespace
{

constexpr u32 kSignatureBytes = 4;
constexpr u8 kContinuationMessage = 16; // holds the offset and the size of another chunk, eight bytes each
constexpr u32 kMaxHeaderChunks = 32;

struct SHeaderChunk
{
    u64 m_Offset;
    u64 m_ByteCount;  // without the checksum
    u64 m_MessagesAt; // offset of the first message in the chunk
};

u64 ReadNumber(const u8 *bytes, ureg byteCount)
{
    u64 number = 0;
    std::memcpy(&number, bytes, byteCount);
    return number;
}

u32 Rotate(u32 value, u32 bits) { return value << bits | value >> (32 - bits); }

// Jenkins' lookup3, as in HDF5's headers.
u32 Checksum(const u8 *data, ureg byteCount)
{
    static constexpr u32 kMixBits[] = {4, 6, 8, 16, 19, 4};
    static constexpr u32 kFinalBits[] = {14, 11, 25, 16, 4, 14, 24};
    u32 state[3]; // a, b and c
    state[0] = state[1] = state[2] = 0xDEADBEEF + u32(byteCount);
    for (;;)
    {
        u32 words[3] = {};
        const ureg blockBytes = TZMin(byteCount, sizeof(words));
        std::memcpy(words, data, blockBytes);
        for (u32 i = 0; i < 3; ++i)
            state[i] += words[i];
        data += blockBytes;
        byteCount -= blockBytes;
        if (byteCount == 0)
            break;
        for (u32 i = 0; i < 6; ++i)
        {
            u32 &x = state[i % 3], &y = state[(i + 1) % 3], &z = state[(i + 2) % 3];
            x = (x - z) ^ Rotate(z, kMixBits[i]);
            z += y;
        }
    }
    for (u32 i = 0; i < 7; ++i)
    {
        u32 &x = state[(i + 2) % 3];
        const u32 y = state[(i + 1) % 3];
        x = (x ^ y) - Rotate(y, kFinalBits[i]);
    }
    return state[2];
}

// Checks the checksum of a chunk, and appends the chunks that continue it.
bool CheckAndAppendChunks(CDiskFile &disk, const SHeaderChunk &chunk, ureg messageHeadBytes, SHeaderChunk *chunks,
                          u32 &chunkCount)
{
    CReason refused;
    CBytes bytes;
    if (chunk.m_ByteCount > disk.Size() || !bytes.Alloc(chunk.m_ByteCount + kSignatureBytes, refused) ||
        !disk.Read(chunk.m_Offset, bytes.Data(), chunk.m_ByteCount + sizeof(u32)) ||
        ReadNumber(bytes.Data() + chunk.m_ByteCount, sizeof(u32)) != Checksum(bytes.Data(), chunk.m_ByteCount))
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

} // namespace

bool CDiskFile::IsHeaderIntact(u64 offset)
{
    u8 head[6];
    if (m_IsWritten || !Read(offset, head, sizeof(head)) || std::memcmp(head, "OHDR", kSignatureBytes) != 0)
        return true;
    // Signature, version and flags; times and limits if the flags say so; the size of the messages; the messages.
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
        if (!CheckAndAppendChunks(*this, chunks[i], messageHeadBytes, chunks, chunkCount))
            return false;
    }
    return true;
}

} // namespace Tessaly::Snapshot
