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
    if (!TZ_VERIFY(m_Page != null))
        return Internal::MissingElement<const SParticleStreamField>();
    return m_Page->RawStream(streamId);
}

inline bool CParticlePageView::_HasParticles() const
{
    return m_Page != null && u64(m_First) + m_Count <= m_Page->Capacity();
}

inline u8 *CParticlePageView::_ColumnStart(const SParticleStreamField &field) const
{
    if (!TZ_VERIFY(_HasParticles()) || field.m_RawDataPtr == null)
        return null;
    return field.m_RawDataPtr + size_t(field.m_Definition.m_StorageSize) * m_First;
}

template <typename _Type>
TStridedMemoryView<_Type> CParticlePageView::_TypedColumn(const SParticleStreamField &field) const
{
    const u32 stride = field.m_Definition.m_StorageSize;
    const u32 valueSize = field.IsConstant() ? u32(sizeof(S64Bytes)) : stride;
    if (!TZ_VERIFY(sizeof(_Type) <= valueSize))
        return TStridedMemoryView<_Type>();
    u8 *start = _ColumnStart(field);
    if (start == null || !TZ_VERIFY((ureg(start) | stride) % alignof(_Type) == 0))
        return TStridedMemoryView<_Type>();
    return TStridedMemoryView<_Type>(reinterpret_cast<_Type *>(start), m_Count, stride);
}

template <typename _Type>
TStridedMemoryView<const _Type> CParticlePageView::Column(CGuid streamId) const
{
    return _TypedColumn<const _Type>(RawStream(streamId));
}

template <typename _Type>
TStridedMemoryView<_Type> CParticlePageView::ColumnForWriting(CGuid streamId) const
{
    const SParticleStreamField &field = RawStream(streamId);
    if (!TZ_VERIFY(!field.IsConstant()) || !TZ_VERIFY(m_Page->ReadyToWrite()))
        return TStridedMemoryView<_Type>();
    return _TypedColumn<_Type>(field);
}

template <typename _Type>
TMemoryView<const _Type> CParticlePageView::DenseColumn(CGuid streamId) const
{
    const TStridedMemoryView<const _Type> column = Column<_Type>(streamId);
    if (!column.Empty() && !TZ_VERIFY(column.Stride() == sizeof(_Type)))
        return TMemoryView<const _Type>();
    return TMemoryView<const _Type>(column.Data(), column.Count());
}

template <typename _Type>
TMemoryView<_Type> CParticlePageView::DenseColumnForWriting(CGuid streamId) const
{
    const TStridedMemoryView<_Type> column = ColumnForWriting<_Type>(streamId);
    if (!column.Empty() && !TZ_VERIFY(column.Stride() == sizeof(_Type)))
        return TMemoryView<_Type>();
    return TMemoryView<_Type>(column.Data(), column.Count());
}

} // namespace Tessaly
