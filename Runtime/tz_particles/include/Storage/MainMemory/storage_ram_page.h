// A page: up to Capacity() particles as a structure of arrays, one column per stored field, all columns in one raw
// block; and the view on a run of its particles.
//
// Pages are shared by reference. A stream changes its pages under its page lock. Pages and views may outlive the
// stream; none of their operations accesses it.
//
//   ParticleCount() <= Capacity();  m_ParticleCount of every field == ParticleCount()
//   column of a field: Align<16>(m_StorageSize * Capacity()) bytes, columns back to back in definition order
//
// Under the address sanitizer, after Particles::SetPoisonFreeSlots(true), a page's free slots are poisoned, and so are
// the bytes of its block that belong to no particle: an access through a view to a removed particle is an error.
// RawDataForWriting and BeginRead unpoison the block; the next change of the count without readers poisons it again.
#pragma once

#include <tz_kernel/include/kr_memoryviews.h>
#include <tz_kernel/include/kr_refptr.h>
#include <tz_particles/include/ps_stream.h>

#include "storage_ram_allocator.h"
#include "storage_ram_page_index.h"

namespace Tessaly
{

class CParticleStream_MainMemory;

// The value of every byte in slots that were never used.
constexpr u8 kFreshParticleByte = 0xF3;

// The storage of one field in one page. It does not own the bytes.
struct TZ_API SParticleStreamField : public CNonCopyable
{
    u8 *m_RawDataPtr; // the column, or a constant's 64 bytes; null when there is none
    u32 m_ParticleCount;
    SParticleStreamFieldDef m_Definition;

    // Make a field without data.
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

    bool IsConstant() const { return m_Definition.m_StorageSize == 0; } // it has one value for all particles
    void Clear();                                                       // sets the count and the data to none
    // Fills a stored column from particle first to m_ParticleCount with kFreshParticleByte.
    void TrashFrom(u32 first);
    void Swap(SParticleStreamField &other); // exchanges the records, not the bytes of the columns

private:
    SParticleStreamField(const SParticleStreamField &);
    SParticleStreamField &operator=(const SParticleStreamField &);
};

namespace TTypeTraits
{
template <>
inline constexpr bool HasTrivialRelocate<SParticleStreamField> = true;
} // namespace TTypeTraits

// A particle that took the place of a removed one: from index m_From of its page to m_To.
struct SParticleMove
{
    u32 m_From;
    u32 m_To;
};

// A page, shared by reference. Its operations expect the page lock of the stream that lists it, unless they say
// otherwise; a page in no list needs none.
class TZ_API CParticlePage : public CRefCountedObject
{
public:
    // Makes an empty page without block and fields; the stream lays it out. capacity is in particles.
    CParticlePage(CParticleStream_MainMemory *parent, u32 capacity);
    ~CParticlePage() override;

    u32 ParticleCount() const { return Threads::LoadShared(m_ParticleCount); } // live particles; needs no lock
    u32 Capacity() const { return m_Capacity; }                                // particles; never changes
    u32 FreeCount() const { return Capacity() - ParticleCount(); }             // free slots
    bool Empty() const { return ParticleCount() == 0; }                        // there is no live particle
    bool Full() const { return ParticleCount() == Capacity(); }                // there is no free slot

    // Return the fields, in definition order. StreamsForWriting requires that the page has no readers (asserted).
    TMemoryView<const SParticleStreamField> Streams() const { return m_Streams_Unsafe.View(); }
    TMemoryView<SParticleStreamField> StreamsForWriting()
    {
        TZ_ASSERT(ReadyToWrite());
        return m_Streams_Unsafe.ViewForWriting();
    }
    u32 StreamsCount() const { return m_Streams_Unsafe.Count(); }
    // Return one field.
    // Fails: an empty record, after a report, for an index out of range.
    const SParticleStreamField &RawStream(CGuid streamId) const
    {
        if (TZ_LIKELY(streamId < StreamsCount())) // the usual case reads no flag of an assertion
            return m_Streams_Unsafe.RawDataPointer()[streamId.Get()];
        TZ_ASSERT(streamId.Valid());
        static_cast<void>(m_Streams_Unsafe[streamId]); // reports it
        return Internal::MissingElement<const SParticleStreamField>();
    }
    const SParticleStreamField &Stream(CGuid streamId) const { return RawStream(streamId); }
    // Returns the index of the first field of that name.
    // Fails: CGuid::INVALID for the empty name and for one that no field has.
    CGuid StreamId(CStringId nameGUID) const;

    const PParticleRawPage_MainMemory &RawPage() const { return m_RawPage; } // the block of the columns
    CParticleStream_MainMemory *ParentStream() const { return m_Parent; }    // it may be destroyed already
    const SParticleStreamDef *GetStreamDef() const { return m_StreamDef; }   // the definition of the page's layout

    // Whether the raw block has no readers. PrepareForWriting is called right before a write, which is given up when it
    // returns false.
    bool ReadyToWrite() const { return m_RawPage == null || m_RawPage.Get()->ReadersCount() == 0; }
    bool PrepareForWriting() { return ReadyToWrite(); }

    // Adds count particles after the last one and returns the index of the first. The stream's live count does not
    // change.
    // Fails: CGuid::INVALID, and nothing changes, when there are fewer free slots.
    CGuid AllocateParticles(u32 count);

    // Removes the particles at indices, which are ascending and unique, and returns how many. The last particles of the
    // page fill the holes. The stream's live count does not change: for a page of a stream, use
    // CParticleStream_MainMemory::RemoveParticles. outMoves, when given, receives a move for each particle that changed
    // its index, and their number as its count: at most indices.Count(), at most the particles that stay.
    // Fails: 0, after a report, for a bad list or a page with readers: nothing changes. An outMoves that is too small
    //        is reported and receives the first moves.
    // Invalidates: views on the page.
    u32 RemoveParticles(const TMemoryView<const u32> &indices, TMemoryView<SParticleMove> *outMoves = null);

    // Makes this page's particles a copy of those of other. Requires the same fields, capacity and block size; whatever
    // they are, only bytes of the two pages' columns are accessed.
    // Fails: nothing changes, after a report, when this page has readers.
    void DeepCopy(const CParticlePage &other);

    // Removes all particles. Block and fields stay.
    // Invalidates: views on the page.
    void Clear();

    // Returns the bytes of page object, field table, raw page object and raw block.
    u32 MemoryFootprint() const;

    // Changes ParentStream(), for CParticleStream_MainMemory::Swap.
    void ReassignParentStream(CParticleStream_MainMemory *parent) { m_Parent = parent; }

private:
    friend class CParticleStream_MainMemory;
    friend class CPageListIndex;

    using FnCopyBytes = void (*)(void *dst, const void *src, ureg byteCount);
    void _DeepCopy(const CParticlePage &other, FnCopyBytes copyBytes);
    void _SetParticleCount(u32 count); // of the page and of every field
    // Whether the fields are those of streamDef and have their data. They may have been swapped or cleared.
    bool _HasFieldsOf(const SParticleStreamDef &streamDef) const;
    // Returns the bytes of one field's column, rounding included.
    u32 _ColumnSizeInBytes(const SParticleStreamField &field) const;
    // Fills every stored column from particle first to its end, rounding included, with kFreshParticleByte.
    void _FillFreshRows(u32 first);
    // For the address sanitizer: poisons free slots and rounding, if the host has asked for it and the page has no
    // readers. Live particles stay accessible meanwhile.
    void _PoisonFreeSlots();
    void _UnpoisonAllSlots() const;
    // Removes the particles before first, and moves the others to index 0.
    void _DropFirstParticles(u32 first);

    u32 m_ParticleCount;
    u32 m_Capacity;
    u32 m_IndexInList; // valid with m_ListIndex; CPageListIndex writes both
    PParticleRawPage_MainMemory m_RawPage;
    TArray<SParticleStreamField> m_Streams_Unsafe;
    CPageListIndex *m_ListIndex; // index of the page's list, updated with each change of the count; or null
    CParticleStream_MainMemory *m_Parent;
    const SParticleStreamDef *m_StreamDef;
};

using PParticlePage = TRefPtr<CParticlePage>;
using PCParticlePage = TRefPtr<const CParticlePage>;

// A run of particles of one page, and a reference to that page. Operations on fields concern the view's particles.
//
// Writing values needs the page lock where another thread may access the same particles.
class TZ_API CParticlePageView
{
public:
    // Makes an empty view without a page.
    CParticlePageView()
        : m_First(0)
        , m_Count(0)
    {
    }
    // Make a view on all particles that the page has now; of null an empty view.
    CParticlePageView(const CParticlePage &page);
    CParticlePageView(const PParticlePage &page);
    // Makes a view on count particles from first on. Requires that the page has them (asserted).
    CParticlePageView(const CParticlePage &page, u32 first, u32 count)
        : CParticlePageView(PParticlePage(const_cast<CParticlePage *>(&page)), first, count)
    {
    }

    // The particles, as the view was made: removals from the page do not change it.
    bool Empty() const { return m_Count == 0; }
    u32 FirstParticle() const { return m_First; } // index in the page
    u32 ParticleCount() const { return m_Count; }
    // Return the page; null for an empty view.
    const PParticlePage &OriginalPage() { return m_Page; }
    PCParticlePage OriginalPage() const { return PCParticlePage(m_Page); }
    // Whether the view has all particles that the page has now.
    bool IsFullPageView() const { return m_Page != null && m_First == 0 && m_Count == m_Page->ParticleCount(); }
    void Clear(); // makes the view empty and releases the page

    // Return the page's fields, whose columns start at the page's first particle, not at the view's. Those for writing
    // require that the page has no readers (asserted).
    // Fails: without a page no field, or an empty record after a report.
    TMemoryView<const SParticleStreamField> Streams() const;
    TMemoryView<SParticleStreamField> StreamsForWriting() const;
    const SParticleStreamField &Stream(CGuid streamId) const { return RawStream(streamId); }
    const SParticleStreamField &RawStream(CGuid streamId) const;
    SParticleStreamField &RawStreamForWriting(CGuid streamId) const;
    CGuid StreamId(CStringId nameGUID) const;       // as the page's
    const SParticleStreamDef *GetStreamDef() const; // as the page's; null without a page

    // Return the bytes of the view's first particle; of a constant field, its value.
    // Fails: null for a field without data; null, after a report, when there is no such field, and for writing also for
    //        a constant field and for a page with readers.
    const u8 *RawStreamBegin(CGuid streamId) const;
    u8 *RawStreamBeginForWriting(CGuid streamId) const;

    // Return the values of one field for the view's particles. The stride is the storage size, 0 for a constant field.
    // Fails: an empty view for a field without data; an empty view, after a report, as RawStreamBegin and
    //        RawStreamBeginForWriting, and for a type that is larger than the value or would be misaligned.
    template <typename _Type>
    TStridedMemoryView<const _Type> Column(CGuid streamId) const;
    template <typename _Type>
    TStridedMemoryView<_Type> ColumnForWriting(CGuid streamId) const;

    // The same without a stride, for a type of the storage size.
    // Fails: as Column; also, after a report, for a type of another size.
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

    bool _HasParticles() const; // there is a page, and the view lies within its capacity
    bool _CanWrite(const SParticleStreamField &field, CGuid streamId) const; // false is reported
    u8 *_ColumnStart(const SParticleStreamField &field) const;
    template <typename _Type>
    TStridedMemoryView<_Type> _TypedColumn(const SParticleStreamField &field, CGuid streamId) const;

    PParticlePage m_Page;
    u32 m_First;
    u32 m_Count;
};

namespace TTypeTraits
{
template <>
inline constexpr bool HasTrivialRelocate<CParticlePageView> = true;
} // namespace TTypeTraits

} // namespace Tessaly

#include "storage_ram_page.inl"
