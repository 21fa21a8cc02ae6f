// Runs scripts on streams of the library and on their models, and tells the first thing in which they differ.
//
// It needs the runtime to be started, and no other stream beside its own. It ends a script by releasing everything:
// nothing of the page allocator may then be in use.
#pragma once

#include <functional>
#include <map>

#include <support/report_recorder.h>
#include <support/test_stream.h>

#include "naive_stream.h"
#include "operation.h"

namespace Tessaly
{
namespace Model
{

class CInterpreter : public CNonCopyable
{
public:
    // Tells whether memory has been refused since the operation began; then the model follows the library.
    using FnWasRefused = std::function<bool()>;

    explicit CInterpreter(FnWasRefused wasRefused = FnWasRefused());
    ~CInterpreter();

    // Refuses requests for blocks of the page allocator on both sides, by their number from 1 on, and with one all that
    // follow in the same operation. OnPageMade is to be called when the library makes a page object.
    void RefuseBlocks(std::function<bool(u32 request)> refuses);
    void OnPageMade();
    bool WasBlockRefused() const { return m_World.m_RefusedCount != 0; } // ever

    // Runs one operation on both sides; returns what differs, or nothing.
    std::string Run(const SOperation &operation);
    // Releases everything; the same.
    std::string Finish();

private:
    static constexpr u32 kStreamCount = 3;

    struct SPair
    {
        std::unique_ptr<Tests::CTestStream> m_Real;
        std::unique_ptr<CNaiveStream> m_Naive;
    };
    struct SHeldView
    {
        CParticlePageView m_Real;
        SNaiveView m_Naive;
    };
    struct SHeldReader
    {
        PParticlePage m_Page;
        std::unique_ptr<CScopedRawPageReader> m_Reader;
        PNaivePage m_Naive;
    };
    struct SPagePair
    {
        PParticlePage m_Real;
        PNaivePage m_Naive;
        SPair *m_Lister = null; // the stream that lists it, if one does,
        u32 m_Index = 0;        // and where
    };

    // What the model takes over from the library after a refusal whose outcome is not one alone.
    enum class EAdoption
    {
        None,
        Pages, // their choice; their rows are predicted
        Rows,
    };

    void _Plant(const SOperation &operation, SPair &stream); // the fault that is to be seen
    // Each does its operation on both sides.
    void _Do(const SOperation &operation, SPair &stream);
    void _BindTo(SPair &stream, const PLoan &loan, const PLoan &constants);
    void _Bind(const SOperation &operation, SPair &stream);
    void _Rebirth(SPair &stream, u32 pageSize);
    void _Allocate(const SOperation &operation, SPair &stream);
    void _AllocateAll(SPair &stream, u32 count);
    void _Resize(SPair &stream, u32 bound);
    void _Recount(SPair &stream);
    void _Collect(const SOperation &operation, SPair &stream);
    void _DeepCopy(SPair &stream, SPair &other);
    void _MakePage(const SOperation &operation, SPair &stream);
    void _Query(const SOperation &operation, SPair &stream);
    void _SetBudget(const SOperation &operation, SPair &stream);
    void _Tend(bool cleansOut);
    void _DoInPage(const SOperation &operation, const SPagePair &page);
    void _Fill(const SOperation &operation, const SPagePair &page);
    void _Remove(const SOperation &operation, const SPagePair &page);
    void _AllocateInPage(const SOperation &operation, const SPagePair &page);
    void _TakeView(const SOperation &operation, const SPagePair &page);
    void _DropView(u32 code);
    void _BeginRead(const SOperation &operation, SPagePair page);
    void _EndRead(u32 code);
    void _Copy(const SOperation &operation, const SPagePair &dst);

    SPair &_Stream(u32 index) { return m_Streams[index % kStreamCount]; }
    // The page that a code names: of the stream's list, at times of a held view. Null pages when there is none.
    SPagePair _Page(const SOperation &operation, u32 code);
    // Registers births in a page with the stream that lists it, unchecked.
    void _CountBirths(const SPagePair &page, u32 count);
    // What to copy from: a held view, or a part of a page.
    SHeldView _CopySource(const SOperation &operation);
    // Whether so many more pages stay within what a run may use.
    bool _Affords(u64 pageBytes, u64 pageCount);
    bool _AffordsPages(const CNaiveStream &stream, u64 pageCount);
    bool _AffordsRebuild(const CNaiveStream &stream, const SLoan &loan);
    void _BeginBlockRequest();
    bool _WasRefused() const { return m_WasRefused && m_WasRefused(); }
    // To be called when the model has done its part.
    void _AdoptIfRefused(EAdoption adoption) { m_Adoption = _WasRefused() ? adoption : EAdoption::None; }
    // Tells of an unlike pair, the first of an operation; index: of what is many, or -1.
    void _Differ(const char *what, u64 real, u64 expected, s64 index = -1)
    {
        if (real != expected && m_Difference.empty())
            _Tell(index < 0 ? what : what + (" " + std::to_string(index)), real, expected);
    }
    void _Tell(const std::string &what, u64 real, u64 expected);

    std::string _Compare();
    void _CompareReports();
    void _CompareStream(const SPair &stream);
    void _ComparePage(CNaivePage &naive, const CParticlePage &real);
    void _CompareRows(CNaivePage &naive, u32 column, const SParticleStreamField &field, bool isNew);
    void _CompareSums(const SPair &stream);
    void _Adopt();
    void _AdoptPages(SPair &stream, std::map<const void *, PNaivePage> &known);

    FnWasRefused m_WasRefused;
    Tests::CReportRecorder m_Recorder;
    SNaiveWorld m_World;
    std::vector<SPair> m_Streams;
    std::vector<SHeldView> m_Views;
    std::vector<SHeldReader> m_Readers;
    CRandom m_Values; // for what rows are filled with
    std::string m_Difference;
    bool m_NeedsReport = false; // at least one, of any text
    EAdoption m_Adoption = EAdoption::None;
    u32 m_BudgetLife = 0; // operations
    std::function<bool(u32 request)> m_RefusesBlock;
    u32 m_RealBlockRequest = 0, m_NaiveBlockRequest = 0;
    u64 m_RefusedBefore = 0; // the operation
    bool m_WasEverRefused = false;
    PParticleRawPage_MainMemory m_ForgottenBlock;
};

} // namespace Model
} // namespace Tessaly
