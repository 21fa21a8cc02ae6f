// Runs scripts on streams of the library and on models of them, and finds the first difference.
//
// A script is a list of operations (operation.h). Every operation is valid in every state, so that any bytes are a
// script: one that is drawn at random, mutated by the fuzzer, or shortened.
//
// The state is three streams, each beside a model (naive_stream.h), views on pages that are held, and readers of pages.
// The model works on plain vectors of bytes, one step after the other as the operations' descriptions read. It shares
// no layout, search or conversion with the library.
//
// An operation runs on the library and on the model with the same arguments, and what the two return is compared:
// operations_on_streams.cpp and operations_on_pages.cpp each have a function for each operation, and a table of them.
// One that would make the run large or slow is left out on both sides.
//
// After each operation everything else is compared (comparison.cpp): the streams' counts, page sizes, definitions and
// constants; the pages, listed or held, with the addresses and all bytes of their columns; the block bytes in use; and
// the reports of failed checks, text by text and in order.
//
// Refusals follow one plan for a run (refusal.h). Blocks of the page allocator are refused on both sides, and the model
// predicts the outcome. When memory is refused, an operation that makes one page at most succeeds or changes nothing.
// The outcome of others is not documented in all detail: FollowIfRefused checks what is, and makes the library's pages
// the model's.
//
// At the end everything is released: no block may be in use, and the hook on the memory services finds what is not
// given back.
//
// To reproduce a difference, run its seed with its driver (drivers.h, soak_model): it prints the difference, and the
// shortest script with one as C++, which RunScript runs.
#pragma once

#include <support/report_recorder.h>
#include <support/scoped_runtime.h>
#include <support/test_stream.h>

#include "naive_stream.h"
#include "refusal.h"

namespace Tessaly::Model
{

struct SStreamPair
{
    template <typename _Call>
    void OnBoth(const _Call &call)
    {
        call(*m_Real);
        call(*m_Naive);
    }

    std::unique_ptr<CNaiveStream> m_Naive; // it keeps the definition that the other is bound to
    std::unique_ptr<Tests::CTestStream> m_Real;
};

struct SPagePair
{
    PParticlePage m_Real;
    PNaivePage m_Naive;
    SStreamPair *m_Stream = null; // that lists it, if one does,
    u32 m_Index = 0;              // and where
};

// A view that is held, or a reader.
struct SViewPair
{
    CParticlePageView m_Real;
    SNaiveView m_Naive;
    std::unique_ptr<CScopedRawPageReader> m_Reader;
};

struct SState
{
    static constexpr u32 kStreamCount = 3;

    SState();

    SStreamPair &Stream(u32 index) { return m_Streams[index % kStreamCount]; }
    // Makes a stream in the place of another one, which is destroyed before.
    void Replace(SStreamPair &stream, u32 pageSize);
    // The page that an argument stands for: of the stream's list, at times of a held view. Null pages: there is none.
    SPagePair Page(SStreamPair &stream, u32 argument);
    // Whether so many more pages, with so many bytes in all, leave the run small and quick.
    bool Affords(u64 pageCount, u64 bytes) const;
    // Note the first difference.
    void CheckEqual(const char *what, const std::string &real, const std::string &expected);
    void CheckEqual(const char *what, u64 real, u64 expected);

    SNaiveWorld m_World;
    CRefusal m_Refusal{m_World};
    Tests::CScopedRuntime m_Runtime;
    Tests::CReportRecorder m_Reports;
    std::vector<SStreamPair> m_Streams;
    std::vector<SViewPair> m_Views, m_Readers;
    PParticleRawPage_MainMemory m_ForgottenBlock; // of the planted fault
    CRandom m_Values{1};                          // that rows are filled with
    std::string m_Difference;                     // the first one
};

class CInterpreter : public CNonCopyable
{
public:
    explicit CInterpreter(const SRefusalPlan &plan) { m_State.m_Refusal.Begin(plan); }

    // Up to the first difference.
    void Run(const Script &script);
    // Ends the plan; returns whether it refused anything.
    bool EndRefusals();
    // Releases everything; returns the first difference since the beginning, or nothing.
    std::string Finish();

private:
    SState m_State;
};

// Run an operation on both sides. The first returns false when it is one on a page.
bool RunOnStream(SState &state, SStreamPair &stream, const SOperation &operation);
void RunOnPage(SState &state, const SPagePair &page, const SOperation &operation);

// Compares both sides after an operation.
void Compare(SState &state);

// When memory was refused, makes the library's pages the model's. isPredicted: each has to be one that the model has.
void FollowIfRefused(SState &state, SStreamPair &stream, bool isPredicted);

} // namespace Tessaly::Model
