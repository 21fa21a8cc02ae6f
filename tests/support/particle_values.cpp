#include "particle_values.h"

#include <cstring>

#include <tz_memory.h>

namespace Tessaly
{
namespace Tests
{

void MakeValue(u32 number, CStringId fieldName, u32 storageSize, u8 *out)
{
    for (u32 i = 0; i < storageSize; ++i)
    {
        // Odd factors: different numbers give different words.
        const u32 word = (number + 1) * 2654435761u + fieldName.m_Id * 40503u + (i / 4) * 97u;
        out[i] = static_cast<u8>(word >> (8 * (i % 4)));
    }
}

void FillParticles(const CParticlePageView &view, u32 firstNumber)
{
    for (const SParticleStreamField &field : view.Streams())
    {
        const u32 size = field.m_Definition.m_StorageSize;
        for (u32 i = 0; size != 0 && i < view.ParticleCount(); ++i)
            MakeValue(firstNumber + i, field.m_Definition.m_NameGUID, size,
                      field.m_RawDataPtr + size_t(size) * (view.FirstParticle() + i));
    }
}

u32 FillParticles(const CParticleStream_MainMemory &stream, u32 firstNumber)
{
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        const CParticlePageView view(*stream._UnsafePage(CGuid(i)));
        FillParticles(view, firstNumber);
        firstNumber += view.ParticleCount();
    }
    return firstNumber;
}

::testing::AssertionResult HoldsParticles(const CParticlePage &page, u32 first, const std::vector<u32> &numbers)
{
    if (first + numbers.size() > page.ParticleCount())
        return ::testing::AssertionFailure() << "the page holds only " << page.ParticleCount() << " particles";
    for (const SParticleStreamField &field : page.Streams())
    {
        const u32 size = field.m_Definition.m_StorageSize;
        if (field.m_ParticleCount != page.ParticleCount())
            return ::testing::AssertionFailure()
                   << "a field counts " << field.m_ParticleCount << " particles, the page " << page.ParticleCount();
        std::vector<u8> expected(size);
        for (u32 i = 0; size != 0 && i < numbers.size(); ++i)
        {
            MakeValue(numbers[i], field.m_Definition.m_NameGUID, size, expected.data());
            if (std::memcmp(expected.data(), field.m_RawDataPtr + size_t(size) * (first + i), size) != 0)
                return ::testing::AssertionFailure() << "field " << field.m_Definition.m_NameGUID.m_Id << ": slot "
                                                     << first + i << " is not particle " << numbers[i];
        }
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult HoldsRun(const CParticlePage &page, u32 firstNumber, u32 count)
{
    if (page.ParticleCount() != count)
        return ::testing::AssertionFailure() << "the page holds " << page.ParticleCount() << " particles";
    return HoldsParticles(page, 0, Numbers(firstNumber, count));
}

::testing::AssertionResult IsFreshFrom(const CParticlePage &page, u32 first)
{
    for (const SParticleStreamField &field : page.Streams())
    {
        const u32 size = field.m_Definition.m_StorageSize;
        const u32 columnBytes = Mem::Align<16, u32>(size * page.Capacity());
        for (u32 byte = size * first; size != 0 && byte < columnBytes; ++byte)
        {
            if (field.m_RawDataPtr[byte] != kFreshParticleByte)
                return ::testing::AssertionFailure() << "field " << field.m_Definition.m_NameGUID.m_Id << ": byte "
                                                     << byte << " is " << u32(field.m_RawDataPtr[byte]);
        }
    }
    return ::testing::AssertionSuccess();
}

std::vector<u32> Numbers(u32 first, u32 count)
{
    std::vector<u32> numbers(count);
    for (u32 i = 0; i < count; ++i)
        numbers[i] = first + i;
    return numbers;
}

} // namespace Tests
} // namespace Tessaly
