// A page: up to Capacity() particles as a structure of arrays, one column per stored field, all columns in one raw
// block; and the view on a run of its particles.
//
// Pages are shared by reference. The stream that lists a page changes it under its page lock; a page may outlive its
// stream, and nothing that a page or a view answers goes through the stream.
//
//   ParticleCount() <= Capacity();  m_ParticleCount of every field == ParticleCount()
//   column of a field: Align<16>(m_StorageSize * Capacity()) bytes, columns back to back in definition order
//
// Under the address sanitizer, after Particles::SetPoisonFreeSlots(true), the free slots are poisoned, and so is the
// rest of the block, what rounds columns up included: touching a particle that is gone, through a view taken earlier,
// is an error. RawDataForWriting and BeginRead open the whole block, until the page's count changes next without
// readers.
#pragma once

#include <tz_kernel/include/kr_memoryviews.h>
#include <tz_kernel/include/kr_refptr.h>
#include <tz_particles/include/ps_stream.h>

#include "storage_ram_allocator.h"
#include "storage_ram_page_index.h"

namespace Tessaly
{

class CParticleStream_MainMemory;

// The byte that slots read as which nobody used since their page was made.
constexpr u8 kFreshParticleByte = 0xF3;

// The storage of one field inside one page. It never owns the bytes.
struct TZ_API SParticleStreamField : public CNonCopyable
{
    u8 *m_RawDataPtr;                     // the column, or the constant's 64 bytes; null when there is none
    u32 m_ParticleCount;                  // particles whose values the field holds
    SParticleStreamFieldDef m_Definition; // as in the definition that the page was laid out for

    // A field without data; of an empty definition, or of the given one.
    SParticleStreamField()
        : m_RawDataPtr(null)
        , m_ParticleCount(0)
    {
    }
    SParticleStreamField(const SParticleStreamFieldDef &definition)
        : m_RawDataPtr(null)
        , m_ParticleCount(0)
        , m_Definition(definition)
    {
    }
    SParticleStreamField(CStringId nameGUID, EBaseTypeID type, u32 storageSize)
        : SParticleStreamField(SParticleStreamFieldDef(nameGUID, type, storageSize))
    {
    }
    ~SParticleStreamField() {}

    bool IsConstant() const { return m_Definition.m_StorageSize == 0; } // one value, in the constant data
    void Clear();                                                       // forgets the data; the definition stays
    // Fills a stored column from particle first to m_ParticleCount with kFreshParticleByte.
    void TrashFrom(u32 first);
    void Swap(SParticleStreamField &other); // exchanges the records; no byte of a column moves

private:
    SParticleStreamField(const SParticleStreamField &);
    SParticleStreamField &operator=(const SParticleStreamField &);
};

namespace TTypeTraits
{
// An array moves it by copying its bytes.
template <>
inline constexpr bool HasTrivialRelocate<SParticleStreamField> = true;
} // namespace TTypeTraits

// A particle that filled the hole of a removed one: what was at index m_From of its page is now at m_To.
struct SParticleMove
{
    u32 m_From; // before the removal
    u32 m_To;   // after it
};

// A page, shared by reference. What says nothing of a lock below is for who holds the page lock of the stream that
// lists the page, or a page that no stream lists.
class TZ_API CParticlePage : public CRefCountedObject
{
public:
    // An empty page without a block and without fields; the stream lays it out. capacity is in particles.
    CParticlePage(CParticleStream_MainMemory *parent, u32 capacity);
    ~CParticlePage() override;

    u32 ParticleCount() const { return Threads::LoadShared(m_ParticleCount); } // live; may be read without a lock
    u32 Capacity() const { return m_Capacity; }                                // particles; never changes
    u32 FreeCount() const { return Capacity() - ParticleCount(); }             // particles that still fit
    // As the counts say: no particle is left, no slot is left.
    bool Empty() const { return ParticleCount() == 0; }
    bool Full() const { return ParticleCount() == Capacity(); }

    // The fields, in definition order; for writing only while the page has no readers (asserted).
    TMemoryView<const SParticleStreamField> Streams() const { return m_Streams_Unsafe.View(); }
    TMemoryView<SParticleStreamField> StreamsForWriting()
    {
        TZ_ASSERT(ReadyToWrite());
        return m_Streams_Unsafe.ViewForWriting();
    }
    u32 StreamsCount() const { return m_Streams_Unsafe.Count(); }
    // One field; an id out of range is reported and gives an empty record.
    const SParticleStreamField &RawStream(CGuid streamId) const
    {
        if (TZ_LIKELY(streamId < StreamsCount())) // else the sites' flags do not matter
            return m_Streams_Unsafe.RawDataPointer()[streamId.Get()];
        TZ_ASSERT(streamId.Valid());
        static_cast<void>(m_Streams_Unsafe[streamId]); // reports it
        return Internal::MissingElement<const SParticleStreamField>();
    }
    const SParticleStreamField &Stream(CGuid streamId) const { return RawStream(streamId); }
    CGuid StreamId(CStringId nameGUID) const; // as SParticleStreamDef::StreamId, from the page's own fields

    const PParticleRawPage_MainMemory &RawPage() const { return m_RawPage; } // the block that its columns lie in
    CParticleStream_MainMemory *ParentStream() const { return m_Parent; }    // not to be followed: it may be gone
    const SParticleStreamDef *GetStreamDef() const { return m_StreamDef; }   // the definition it was laid out for

    // True while nobody reads the raw block. PrepareForWriting is asked right before a write, which is abandoned on
    // false.
    bool ReadyToWrite() const { return m_RawPage == null || m_RawPage.Get()->ReadersCount() == 0; }
    bool PrepareForWriting() { return ReadyToWrite(); }

    // Takes count slots behind the last particle and returns the first one's index. CGuid::INVALID, and nothing
    // changed, when there is no room. Registers nothing with the stream. Views stay good.
    CGuid AllocateParticles(u32 count);

    // Removes the particles at indices (ascending, unique); the page's last particles fill the holes, so that views on
    // the page speak of other particles, or of none. Returns how many went. A bad list or a page with readers is
    // reported, changes nothing and gives 0. Registers nothing with the stream: for a page of a stream use
    // CParticleStream_MainMemory::RemoveParticles. outMoves, when given, receives a move for each particle that changed
    // its index, and its count becomes theirs: at most indices.Count(), at most what stays in the page. One that is too
    // small is reported and gets the first moves; the removal itself is the same.
    u32 RemoveParticles(const TMemoryView<const u32> &indices, TMemoryView<SParticleMove> *outMoves = null);

    // Makes this page's particles a copy of other's, one block copy a column. Requires the same fields, capacity and
    // block size; whatever they are, no byte outside the two pages' columns is touched.
    void DeepCopy(const CParticlePage &other);

    void Clear(); // no particle is left, views on them are stale; block and fields stay

    // Bytes: page object, field table, raw page object and raw block.
    u32 MemoryFootprint() const;

    // Names another parent; the stream does it when it swaps its pages.
    void ReassignParentStream(CParticleStream_MainMemory *parent) { m_Parent = parent; }

private:
    friend class CParticleStream_MainMemory;
    friend class CPageListIndex;

    using FnCopyBytes = void (*)(void *dst, const void *src, ureg byteCount);
    void _DeepCopy(const CParticlePage &other, FnCopyBytes copyBytes);
    void _SetParticleCount(u32 count); // of the page and of every field
    // Bytes of one field's column, rounding included.
    u32 _ColumnSizeInBytes(const SParticleStreamField &field) const;
    // Fills every stored column from particle first to its end, rounding included, with kFreshParticleByte.
    void _FillFreshRows(u32 first);
    // For the address sanitizer: particles may be touched; what else is in the block may not while it has no reader,
    // when the host wants that.
    // Called under the lock that guards the count. Rows that stay live are never poisoned in between.
    void _PoisonFreeSlots();
    void _UnpoisonAllSlots() const; // for the page's own writing of free slots
    // Moves the particles from first on to index 0; those before it are gone.
    void _DropFirstParticles(u32 first);

    u32 m_ParticleCount;
    u32 m_Capacity;
    u32 m_IndexInList; // written by the index, as m_ListIndex
    PParticleRawPage_MainMemory m_RawPage;
    TArray<SParticleStreamField> m_Streams_Unsafe;
    CPageListIndex *m_ListIndex; // of the list that the page is in, told of each change of the count; or null
    CParticleStream_MainMemory *m_Parent;
    const SParticleStreamDef *m_StreamDef;
};

// References to a page.
using PParticlePage = TRefPtr<CParticlePage>;
using PCParticlePage = TRefPtr<const CParticlePage>;

// A run of particles of one page, which it keeps alive. Operations on fields speak of the view's own particles.
//
// Writing through a view: the columns of particles that no other thread touches, or under the page lock.
class TZ_API CParticlePageView
{
public:
    // An empty view, which holds no page.
    CParticlePageView()
        : m_First(0)
        , m_Count(0)
    {
    }
    CParticlePageView(const CParticlePage &page); // the whole page, as full as it is now
    CParticlePageView(const PParticlePage &page); // the same; of null the empty view
    // A run of its particles. Requires that they are there (asserted).
    CParticlePageView(const CParticlePage &page, u32 first, u32 count)
        : CParticlePageView(PParticlePage(const_cast<CParticlePage *>(&page)), first, count)
    {
    }

    bool Empty() const { return m_Count == 0; }            // it has no particle
    u32 FirstParticle() const { return m_First; }          // index in the page
    u32 ParticleCount() const { return m_Count; }          // as it was taken; nobody takes particles out of a view
    const PParticlePage &OriginalPage() { return m_Page; } // null for an empty view
    // The same for a page that is not to be changed.
    PCParticlePage OriginalPage() const { return PCParticlePage(m_Page); }
    // Whether it has all particles that the page has now.
    bool IsFullPageView() const { return m_Page != null && m_First == 0 && m_Count == m_Page->ParticleCount(); }
    void Clear(); // lets the page go

    // The page's fields and one of them, as on the page; their columns start at the page's first particle.
    TMemoryView<const SParticleStreamField> Streams() const;
    TMemoryView<SParticleStreamField> StreamsForWriting() const;
    const SParticleStreamField &Stream(CGuid streamId) const { return RawStream(streamId); }
    const SParticleStreamField &RawStream(CGuid streamId) const;
    SParticleStreamField &RawStreamForWriting(CGuid streamId) const;

    // The bytes of the view's first particle; of a constant field, its value. Null, after a report, when there are
    // none.
    const u8 *RawStreamBegin(CGuid streamId) const;
    // The same for writing: never a constant field, nor a page with readers.
    u8 *RawStreamBeginForWriting(CGuid streamId) const;

    CGuid StreamId(CStringId nameGUID) const;       // index of a field by name; INVALID when there is none
    const SParticleStreamDef *GetStreamDef() const; // that the page was laid out for; null without a page

    // The values of one field on the view's particles: stride = storage size, 0 on a constant field, which can not be
    // written. A type that is larger than the value or that would be misaligned is reported and gives an empty view,
    // and so does a field that is not there. A field without data gives an empty view, too.
    template <typename _Type>
    TStridedMemoryView<const _Type> Column(CGuid streamId) const;
    template <typename _Type>
    TStridedMemoryView<_Type> ColumnForWriting(CGuid streamId) const;

    // The same without a stride, where the storage size is the type's; any other is reported and gives an empty view.
    template <typename _Type>
    TMemoryView<const _Type> DenseColumn(CGuid streamId) const;
    template <typename _Type>
    TMemoryView<_Type> DenseColumnForWriting(CGuid streamId) const;

private:
    friend class CParticleStream_MainMemory;

    CParticlePageView(PParticlePage &&page, u32 first, u32 count) // takes the reference; page is not null
        : m_Page(std::move(page))
        , m_First(first)
        , m_Count(count)
    {
        TZ_ASSERT_TEXT("first + count <= page.ParticleCount()", first + count <= m_Page->ParticleCount());
    }

    bool _HasParticles() const;                                              // a page, and the run within its capacity
    bool _CanWrite(const SParticleStreamField &field, CGuid streamId) const; // reports why not
    // Start of the view's values of a field, or null.
    u8 *_ColumnStart(const SParticleStreamField &field) const;
    template <typename _Type>
    TStridedMemoryView<_Type> _TypedColumn(const SParticleStreamField &field, CGuid streamId) const;

    PParticlePage m_Page;
    u32 m_First;
    u32 m_Count;
};

namespace TTypeTraits
{
// An array moves it by copying its bytes.
template <>
inline constexpr bool HasTrivialRelocate<CParticlePageView> = true;
} // namespace TTypeTraits

} // namespace Tessaly

#include "storage_ram_page.inl"
