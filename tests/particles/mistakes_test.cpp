// Each mistake that the guide's table explains is made here: its report has the text of the table.
#include <cstdlib>
#include <fstream>
#include <set>

#include <support/stream_fixture.h>
#include <tz_particles/include/ps_for_each.h>
#include <tz_version.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

struct STooMany // a container of more elements than a view counts
{
    u32 *data() const { return null; }
    size_t size() const { return size_t(1) << 32; }
};

class Mistakes : public CStreamTest
{
protected:
    // The first column of the table, without the backquotes.
    static std::multiset<std::string> Rows()
    {
        std::multiset<std::string> rows;
        std::ifstream guide(TZ_GUIDE);
        bool isThere = false;
        for (std::string line; std::getline(guide, line);)
        {
            isThere = isThere || line == "| the report says | you did | do instead |";
            if (!isThere || line.compare(0, 3, "| `") != 0)
                continue;
            std::string text = line.substr(3, line.find('`', 3) - 3);
            for (size_t at; (at = text.find("\\|")) != std::string::npos;)
                text.erase(at, 1); // a bar inside a table
            rows.insert(text);
        }
        return rows;
    }

    // Makes the mistake with the first request for memory refused, then with the second, and so on.
    void WithoutMemory(const std::function<void()> &mistake)
    {
        for (u32 n = 1; n <= 12; ++n)
            m_Memory.RefuseAt(n), mistake(), m_Memory.RefuseNone();
    }

    void OfTheKernel()
    {
        CheckVersion({9, 8, 7});
        checked_numcast<u32>(u64(1) << 32);
        u8 bytes[4] = {};
        Mem::Copy(bytes + 1, bytes, 3);
        TMemoryView<u32>()[0] = 1;
        TStridedMemoryView<u32>()[0] = 1;
        STooMany tooMany;
        EXPECT_TRUE(TMemoryView<u32>(tooMany).Empty());
        PParticlePage().operator->();
        const PParticlePage page = m_Stream.Page(0);
        page.Get()->_InternalRemoveReference();
        page.Get()->_InternalRemoveReference();
        CRefCountedObject::RemoveReference(page.Get());
        for (u32 i = 0; i < 3; ++i)
            page.Get()->AddReference();

        TArray<u32> array;
        array.begin() += 1;
        WithoutMemory([&] { array.Reserve(100); });
        array.PushBack(1u);
        array.PushBack(array[0]);
        array.Remove(2);
        array.Remove_AndKeepOrder(2);
        array.Remove_AndKeepOrder(1, 1);
        *array.end() = 1;
        array.end() += 200, array.begin() += -1;
        auto beyond = array.end();
        beyond += 1;
        beyond += 1;
        while (array.Count() < array.Capacity())
            array.PushBackUnsafe(1u);
        array.PushBackUnsafe(1u);
    }

    void OfDefinitions()
    {
        CStringId::Register("liquid");
        CStringId::Register("costarring");
        CStringId::Register(null);
        CStringId::UnregisterAll();
        SParticleStreamDef def;
        def.Add(CStringId(), BaseType_Float);
        def.Add(CStringId(7), BaseType_Float);
        def.Add(CStringId(7), BaseType_Float3);
        def.Add(CStringId(8), BaseType_Void);
        CBaseTypeTraits::Traits(__MaxBaseTypes);

        CTestStream stream(16), copy(16);
        stream.StreamId("speed");
        stream.BindStreamDef(null);
        stream.BindStreamDef(null, {}, {}, {});
        stream.BindStreamDef(&m_Definition.Def());
        stream.BindStreamDef(&def, {}, {}, {});
        stream.AllocateParticlesIFP(1, 0);
        CDefinition bad;
        bad.Stored(Life, BaseType_Float).ConstantAt(Colour, BaseType_Float4, CGuid(3));
        bad.BindTo(stream);
        stream.AllocateParticlesIFP(16, 0);
        Particles::ForEach<const CFloat4>(stream, CGuid(1), [](const CFloat4 &) {});

        SParticleStreamDef constants;
        constants.AddConstant(CStringId(9), BaseType_Float);
        CDefinition().BindTo(copy);
        copy.BindStreamDef(&constants, {}, {&CGuid::INVALID, 1}, {});
        CDefinition wide;
        wide.Stored(Life, BaseType_Float, 1 << 21).BindTo(copy);
        stream.BindStreamDef(&def);
        stream.SetPageSize(0);
        def.Add(CStringId(9), BaseType_Float); // while it is bound
        copy.DeepCopy(stream);
        stream.SetPageSize(8);
    }

    void OfBirthsAndTheLock()
    {
        m_Stream.RegisterDeadCount(11);
        m_Stream.RegisterBornCount(11);
        WithoutMemory(
            [this]
            {
                CTestStream stream(16, m_Definition);
                stream.AllocateParticlesIFP(1, 0);
                stream.SetPageSize(8);
                stream.ResizePending(1);
            });
        m_Stream.UnlockPages();
        CTestStream other(16);
        const CScopedPagesLock lock(m_Stream), otherLock(other);
        m_Stream.Swap(other);
        m_Stream.Swap(other);
    }

    void OfViews()
    {
        const CParticlePageView view(m_Stream.Page(0));
        CParticlePageView().Column<float>(CGuid(0));
        CParticlePageView(*m_Stream.Page(0).Get(), 4, 13).Column<float>(CGuid(1));
        m_Stream.Page(1);
        view.Column<float>(view.StreamId(CStringId(99)));
        view.ColumnForWriting<CFloat4>(CGuid(2));
        view.Column<CFloat4>(CGuid(0));
        view.Column<double>(CGuid(0));
        view.DenseColumn<float>(CGuid(0));
        const CScopedRawPageReader reader(m_Stream.Page(0)->RawPage()), another(m_Stream.Page(0)->RawPage());
        view.ColumnForWriting<float>(CGuid(1));
        view.StreamsForWriting();
        m_Stream.Page(0)->RawPage()->RawDataForWriting();
        Particles::ForEach<float>(m_Stream, CGuid(1), [](float) {});
    }

    void OfForEachAndRemoval()
    {
        Particles::ForEach<const float>(m_Stream, CGuid(4), [](float) {});
        Particles::ForEach<CFloat4>(m_Stream, CGuid(2), [](CFloat4) {});
        Particles::ForEach<const float>(m_Stream, CGuid(1), [this](float) { m_Stream.AllocateParticlesIFP(1, 0); });
        Particles::ForEachPageOn([](u32, const auto &task) { task(5); }, m_Stream, [](const CParticlePageView &) {});

        SParticleMove entries[3];
        TMemoryView<SParticleMove> moves(entries, 3);
        const std::vector<u32> twice = {1, 2, 2}, beyond = {1, 20};
        m_Stream.RemoveParticles(3, {});
        m_Stream.RemoveParticles(0, twice);
        m_Stream.RemoveParticles(0, beyond);
        m_Stream.RemoveParticles(0, TMemoryView<const u32>(null, 2));
        m_Stream.RemoveParticles(0, std::vector<u32>{0, 1, 2, 3, 4}, &moves);
        TMemoryView<CGuid> reindexer;
        m_Stream.GarbageCollectOldPages(&reindexer);
    }

    void OfCopiesAndBlocks()
    {
        CTestStream small(4, m_Definition), other(16);
        other.BindStreamDef(&m_Floats);
        CParticlePage &page = *m_Stream.Page(0).Get(), &target = small.AppendPage(4, 0);
        CParticleStream_MainMemory::CopySubRangeToPage(target, page, 0, 5);
        CParticleStream_MainMemory::CopyPageToPage(target, CParticlePageView(page));
        CParticleStream_MainMemory::CopySubRangeToPage(other.AppendPage(16, 0), page, 0, 1);
        small.Cleanup(), other.Cleanup();
        small.AppendPage(4, 4), small.AppendPage(4, 0);
        small.SetPageSize(8);
        small.GarbageCollectOldPages(null);
        small.ResizePending(1);
        small.SetPageSize(16);
        small.RegisterDeadCount(4);
        small.ResizePending(1);
        small.Clear();

        CParticlePageAllocator &allocator = m_Runtime.Allocator();
        u8 *block = allocator.Alloc(512);
        allocator.Retire(reinterpret_cast<u8 *>(0x1000), 512);
        allocator.Retire(block, 1024);
    }

    SParticleStreamDef m_Floats;
    CTestStream m_Stream{16};
};

TEST_F(Mistakes, AreExplainedInTheGuide)
{
    m_Floats.Add(CStringId("speed"), BaseType_Float);
    Particles::Shutdown();
    Particles::Shutdown();
    m_Stream.BindStreamDef(&m_Floats);
    EXPECT_TRUE(Particles::Startup());
    m_Definition.BindTo(m_Stream);
    m_Stream.AllocateParticlesIFP(10, 0);
    OfTheKernel();
    OfDefinitions();
    OfBirthsAndTheLock();
    OfViews();
    OfCopiesAndBlocks();
    OfForEachAndRemoval();

    std::set<std::string> reported;
    u32 growthCount = 0; // the first is an example for all
    for (const SSeenReport &report : m_Reports.Take())
    {
        if (report.m_Message.find("could not grow array") != 0 || growthCount++ == 0)
            reported.insert(report.m_Message.substr(0, report.m_Message.find('\n')));
    }
    const std::multiset<std::string> rows = Rows();
    for (const std::string &text : reported)
        EXPECT_EQ(rows.count(text), 1u) << "rows in the guide for: " << text;
    for (const std::string &text : rows)
        EXPECT_EQ(reported.count(text), 1u) << "nobody reports: " << text;
}
