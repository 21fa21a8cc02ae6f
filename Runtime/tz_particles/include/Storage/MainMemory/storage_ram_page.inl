// Bodies of storage_ram_page.h.
#pragma once

#include "storage_ram_page.h"

namespace Tessaly
{

inline CParticlePageView::CParticlePageView(const CParticlePage &page)
    : m_Page(const_cast<CParticlePage *>(&page))
    , m_First(0)
    , m_Count(page.ParticleCount())
{
}

inline CParticlePageView::CParticlePageView(const PParticlePage &page)
    : m_Page(page)
    , m_First(0)
    , m_Count(page != null ? page.Get()->ParticleCount() : 0)
{
}

inline const SParticleStreamField &CParticlePageView::RawStream(CGuid streamId) const
{
    if (!TZ_VERIFY_MESSAGE(m_Page != null, "the view holds no page: it has no field %u", streamId.Get()))
        return Internal::MissingElement<const SParticleStreamField>();
    return m_Page.Get()->RawStream(streamId);
}

inline bool CParticlePageView::_HasParticles() const
{
    return m_Page != null && u64(m_First) + m_Count <= m_Page.Get()->Capacity();
}

inline u8 *CParticlePageView::_ColumnStart(const SParticleStreamField &field) const
{
    if (field.m_RawDataPtr == null ||
        !TZ_VERIFY_MESSAGE(_HasParticles(), "the view has %u particles from %u on: its page holds at most %u", m_Count,
                           m_First, m_Page->Capacity()))
        return null;
    return field.m_RawDataPtr + size_t(field.m_Definition.m_StorageSize) * m_First;
}

inline bool CParticlePageView::_CanWrite(const SParticleStreamField &field, CGuid streamId) const
{
    return TZ_VERIFY_MESSAGE(!field.IsConstant(), "field %u is a constant, or not there: it can not be written",
                             streamId.Get()) &&
           TZ_VERIFY_MESSAGE(m_Page.Get()->ReadyToWrite(), "the page has %u readers: it can not be written",
                             m_Page->RawPage()->ReadersCount());
}

template <typename _Type>
TStridedMemoryView<_Type> CParticlePageView::_TypedColumn(const SParticleStreamField &field, CGuid streamId) const
{
    const u32 stride = field.m_Definition.m_StorageSize;
    const u32 valueSize = field.IsConstant() ? u32(sizeof(S64Bytes)) : stride;
    if (!TZ_VERIFY_MESSAGE(sizeof(_Type) <= valueSize,
                           "a type of %u bytes does not fit field %u, whose values have %u bytes", u32(sizeof(_Type)),
                           streamId.Get(), valueSize))
        return TStridedMemoryView<_Type>();
    u8 *start = _ColumnStart(field);
    if (start == null ||
        !TZ_VERIFY_MESSAGE((ureg(start) | stride) % alignof(_Type) == 0,
                           "a type aligned to %u bytes does not fit field %u, whose values lie %u bytes apart",
                           u32(alignof(_Type)), streamId.Get(), stride))
        return TStridedMemoryView<_Type>();
    return TStridedMemoryView<_Type>(reinterpret_cast<_Type *>(start), m_Count, stride);
}

template <typename _Type>
TStridedMemoryView<const _Type> CParticlePageView::Column(CGuid streamId) const
{
    return _TypedColumn<const _Type>(RawStream(streamId), streamId);
}

template <typename _Type>
TStridedMemoryView<_Type> CParticlePageView::ColumnForWriting(CGuid streamId) const
{
    const SParticleStreamField &field = RawStream(streamId);
    return _CanWrite(field, streamId) ? _TypedColumn<_Type>(field, streamId) : TStridedMemoryView<_Type>();
}

template <typename _Type>
TMemoryView<const _Type> CParticlePageView::DenseColumn(CGuid streamId) const
{
    const TStridedMemoryView<const _Type> column = Column<_Type>(streamId);
    if (!column.Empty() && !TZ_VERIFY_MESSAGE(column.Stride() == sizeof(_Type),
                                              "field %u has a value every %u bytes: a type of %u bytes is not dense",
                                              streamId.Get(), column.Stride(), u32(sizeof(_Type))))
        return TMemoryView<const _Type>();
    return TMemoryView<const _Type>(column.Data(), column.Count());
}

template <typename _Type>
TMemoryView<_Type> CParticlePageView::DenseColumnForWriting(CGuid streamId) const
{
    const TStridedMemoryView<_Type> column = ColumnForWriting<_Type>(streamId);
    if (!column.Empty() && !TZ_VERIFY_MESSAGE(column.Stride() == sizeof(_Type),
                                              "field %u has a value every %u bytes: a type of %u bytes is not dense",
                                              streamId.Get(), column.Stride(), u32(sizeof(_Type))))
        return TMemoryView<_Type>();
    return TMemoryView<_Type>(column.Data(), column.Count());
}

} // namespace Tessaly
