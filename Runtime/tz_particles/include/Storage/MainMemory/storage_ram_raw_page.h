// A raw page: one raw byte block of the page allocator, shared by reference; and its scoped reader.
#pragma once

#include <tz_defs.h>
#include <tz_kernel/include/kr_refptr.h>

namespace Tessaly
{

class CParticlePageAllocator;
struct SPageBlock;

// One raw byte block, shared by reference. The last reference releases it to its allocator.
class TZ_API CParticleRawPage_MainMemory : public CRefCountedObject
{
public:
    u32 Size() const { return m_Size; } // bytes
    // Readers: BeginRead calls without their EndRead. While there are any, the page must not be written.
    u32 ReadersCount() const { return __atomic_load_n(&m_ReadersCount, __ATOMIC_ACQUIRE); }

    // Returns the block's bytes. Requires that it has no readers (asserted).
    u8 *RawDataForWriting()
    {
        if (TZ_UNLIKELY(ReadersCount() != 0))
            TZ_ASSERT(ReadersCount() == 0);
        _UnpoisonBlockIFN();
        return m_Data;
    }

    // Adds a reader and returns the block's bytes. EndRead may be called by any thread, without the lock.
    // Lock: expects the page lock of the stream.
    const u8 *BeginRead() const
    {
        __atomic_fetch_add(&m_ReadersCount, 1, __ATOMIC_ACQ_REL);
        _UnpoisonBlockIFN(); // a reader may read free slots, too
        return m_Data;
    }
    void EndRead() const { __atomic_fetch_sub(&m_ReadersCount, 1, __ATOMIC_ACQ_REL); }

private:
    friend class CParticlePageAllocator;
    friend class CParticlePage;
    template <typename _Type, typename... _Args>
    friend _Type *Mem::Construct(void *place, _Args &&...args);

    CParticleRawPage_MainMemory(CParticlePageAllocator &allocator, SPageBlock &block);
    ~CParticleRawPage_MainMemory() override; // releases the block
    void _UnpoisonBlockIFN() const
    {
        if (m_HasPoison)
            _UnpoisonBlock();
    }
    void _UnpoisonBlock() const;

    u8 *m_Data;
    u32 m_Size;
    mutable u32 m_ReadersCount;
    SPageBlock *m_Block;
    CParticlePageAllocator *m_Allocator;
    bool m_HasPoison; // the library is compiled for the address sanitizer; its host may not be
};

// References to a raw page.
using PParticleRawPage_MainMemory = TRefPtr<CParticleRawPage_MainMemory>;
using PCParticleRawPage_MainMemory = TRefPtr<const CParticleRawPage_MainMemory>;

// Reads a raw page for a scope and keeps its block alive. Constructed under the page lock of the stream.
class CScopedRawPageReader : public CNonCopyable
{
public:
    // Adds a reader; the destructor removes it.
    explicit CScopedRawPageReader(const CParticleRawPage_MainMemory &rawPage)
        : m_RawPage(&rawPage)
        , m_Data(rawPage.BeginRead())
    {
    }
    // The same; null is allowed.
    explicit CScopedRawPageReader(const PParticleRawPage_MainMemory &rawPage)
        : m_RawPage(rawPage)
        , m_Data(rawPage != null ? rawPage->BeginRead() : null)
    {
    }
    ~CScopedRawPageReader()
    {
        if (m_RawPage != null)
            m_RawPage->EndRead();
    }

    const u8 *Data() const { return m_Data; } // the block's bytes; null without a raw page

private:
    PCParticleRawPage_MainMemory m_RawPage;
    const u8 *m_Data;
};

} // namespace Tessaly
