#include "particle_values.h"

#include <algorithm>
#include <numeric>

#include <tz_memory.h>

namespace Tessaly
{
namespace Tests
{

namespace
{

// The value of particle number in a field.
std::vector<u8> MakeValue(u32 number, const SParticleStreamFieldDef &field)
{
    std::vector<u8> value(field.m_StorageSize);
    for (u32 i = 0; i < value.size(); ++i)
    {
        // Odd factors: different numbers give different words.
        const u32 word = (number + 1) * 2654435761u + field.m_NameGUID.m_Id * 40503u + (i / 4) * 97u;
        value[i] = static_cast<u8>(word >> (8 * (i % 4)));
    }
    return value;
}

} // namespace

void FillParticles(const CParticlePageView &view, u32 firstNumber)
{
    for (const SParticleStreamField &field : view.Streams())
    {
        for (u32 i = 0; !field.IsConstant() && i < view.ParticleCount(); ++i)
        {
            const std::vector<u8> value = MakeValue(firstNumber + i, field.m_Definition);
            std::copy(value.begin(), value.end(), field.m_RawDataPtr + value.size() * (view.FirstParticle() + i));
        }
    }
}

void FillParticles(const CParticleStream_MainMemory &stream, u32 firstNumber)
{
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        const CParticlePageView view(*stream._UnsafePage(CGuid(i)));
        FillParticles(view, firstNumber);
        firstNumber += view.ParticleCount();
    }
}

::testing::AssertionResult HoldsParticles(const CParticlePage &page, u32 first, const std::vector<u32> &numbers)
{
    if (first + numbers.size() > page.ParticleCount())
        return ::testing::AssertionFailure() << "the page holds only " << page.ParticleCount() << " particles";
    for (const SParticleStreamField &field : page.Streams())
    {
        if (field.m_ParticleCount != page.ParticleCount())
            return ::testing::AssertionFailure() << "a field counts " << field.m_ParticleCount << " particles";
        for (u32 i = 0; !field.IsConstant() && i < numbers.size(); ++i)
        {
            const std::vector<u8> value = MakeValue(numbers[i], field.m_Definition);
            if (!std::equal(value.begin(), value.end(), field.m_RawDataPtr + value.size() * (first + i)))
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
    const CScopedRawPageReader reader(page.RawPage()); // free slots are for readers of the whole block only
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
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

} // namespace Tests
} // namespace Tessaly
