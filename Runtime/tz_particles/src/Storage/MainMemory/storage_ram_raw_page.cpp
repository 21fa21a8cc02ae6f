// Raw pages: construction and release.
#include <tz_particles/include/Storage/MainMemory/storage_ram_raw_page.h>

#include <tz_kernel/include/kr_address_sanitizer.h>

#include "storage_ram_arena.h"

namespace Tessaly
{

CParticleRawPage_MainMemory::CParticleRawPage_MainMemory(CParticlePageAllocator &allocator, SPageBlock &block)
    : m_Data(block.Data())
    , m_Size(block.m_Arena->m_BlockBytes)
    , m_ReadersCount(0)
    , m_Block(&block)
    , m_Allocator(&allocator)
    , m_HasPoison(Mem::kIsAddressSanitized)
{
}

CParticleRawPage_MainMemory::~CParticleRawPage_MainMemory() { m_Allocator->_Release(*m_Block); }

void CParticleRawPage_MainMemory::_UnpoisonBlock() const { Mem::Unpoison(m_Data, m_Size); }

} // namespace Tessaly
