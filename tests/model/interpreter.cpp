#include "interpreter.h"

#include <algorithm>

#include "drivers.h"

namespace Tessaly::Model
{

SState::SState()
    : m_Streams(kStreamCount)
{
    for (u32 i = 0; i < kStreamCount; ++i)
        Replace(m_Streams[i], i * 64);
}

void SState::Replace(SStreamPair &stream, u32 pageSize)
{
    stream.m_Real.reset();
    stream.m_Naive.reset();
    stream.m_Real = std::make_unique<Tests::CTestStream>(pageSize);
    stream.m_Naive = std::make_unique<CNaiveStream>(m_World, stream.m_Real.get(), pageSize);
}

SPagePair SState::Page(SStreamPair &stream, u32 argument)
{
    const u32 listed = u32(stream.m_Naive->m_Pages.size()), held = u32(m_Views.size());
    if (listed + held == 0)
        return {};
    const bool isHeld = held != 0 && (listed == 0 || argument % 4 == 3);
    const u32 index = argument / 4 % (isHeld ? held : listed);
    if (!isHeld)
        return {stream.m_Real->_UnsafePage(CGuid(index)), stream.m_Naive->m_Pages[index], &stream, index};
    SViewPair &view = m_Views[index];
    for (SStreamPair &lister : m_Streams)
    {
        const std::vector<PNaivePage> &pages = lister.m_Naive->m_Pages;
        const auto page = std::find(pages.begin(), pages.end(), view.m_Naive.m_Page);
        if (page != pages.end())
            return {view.m_Real.OriginalPage(), *page, &lister, u32(page - pages.begin())};
    }
    return {view.m_Real.OriginalPage(), view.m_Naive.m_Page, null, 0};
}

bool SState::Affords(u64 pageCount, u64 bytes) const
{
    constexpr u64 kMaxPageCount = 300, kMaxPageBytes = 6 << 20, kMaxBytes = 24 << 20;
    return pageCount <= kMaxPageCount && m_World.m_Pages.size() + pageCount <= 2 * kMaxPageCount &&
           bytes <= pageCount * kMaxPageBytes && m_World.m_BlockBytes + std::max(bytes, pageCount * 512) <= kMaxBytes;
}

void SState::CheckEqual(const char *what, const std::string &real, const std::string &expected)
{
    if (real != expected && m_Difference.empty())
        m_Difference = what + (": " + real) + " instead of " + expected;
}

void SState::CheckEqual(const char *what, u64 real, u64 expected)
{
    if (real != expected)
        CheckEqual(what, std::to_string(real), std::to_string(expected));
}

// Does the planted fault, which is to be seen.
static void Plant(SState &state, SStreamPair &stream, const SOperation &operation)
{
    CParticleStream_MainMemory &real = *stream.m_Real;
    const bool wasRefused = state.m_Refusal.WasRefused();
    if (g_Planted == EPlanted::Miscount && wasRefused)
        real.RegisterBornCount_NoConsistencyCheck(1);
    if (g_Planted == EPlanted::ForgottenBlock && wasRefused)
    {
        state.m_Runtime.Allocator().SetMemoryBudget(0);
        state.m_ForgottenBlock = state.m_Runtime.Allocator().AllocPage(1);
    }
    const PParticlePage page = real.PageCount() != 0 ? real.Page(CGuid(real.PageCount() - 1)) : null;
    if (page == null || page->Empty() || !page->ReadyToWrite())
        return;
    const u32 last = page->ParticleCount() - 1;
    if (g_Planted == EPlanted::LostRow && operation.m_Kind == EOperation::Resize)
        real.RemoveParticles(CGuid(real.PageCount() - 1), {&last, 1});
    const SParticleStreamField *field = page->StreamsCount() != 0 ? page->Streams().end() - 1 : null;
    if (g_Planted == EPlanted::FlippedBit && operation.m_Kind == EOperation::BindAgain && field != null &&
        !field->IsConstant())
        field->m_RawDataPtr[size_t(field->m_Definition.m_StorageSize) * last] ^= 1;
}

void CInterpreter::Run(const Script &script)
{
    for (size_t i = 0; i < script.size() && m_State.m_Difference.empty(); ++i)
    {
        const SOperation &operation = script[i];
        SStreamPair &stream = m_State.Stream(operation.m_Stream);
        m_State.m_Refusal.BeginOperation();
        if (!RunOnStream(m_State, stream, operation))
            RunOnPage(m_State, m_State.Page(stream, operation.m_A), operation);
        if (g_Planted != EPlanted::None)
            Plant(m_State, stream, operation);
        Compare(m_State);
    }
}

bool CInterpreter::EndRefusals()
{
    m_State.m_Refusal.End();
    return m_State.m_Refusal.HasRefused();
}

std::string CInterpreter::Finish()
{
    m_State.m_Refusal.End();
    m_State.m_Refusal.BeginOperation();
    m_State.m_Views.clear();
    m_State.m_Readers.clear();
    m_State.m_Streams.clear();
    Compare(m_State);
    return m_State.m_Difference;
}

} // namespace Tessaly::Model
