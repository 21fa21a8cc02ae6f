// What Save leaves on the disk when it fails or is killed, what it holds meanwhile, and Load into streams of other
// fields.
#include <algorithm>
#include <csignal>
#include <random>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "support.h"

using namespace Tessaly;
using namespace Tessaly::Tests;

class SnapshotSaveTest : public SnapshotTest
{
protected:
    SnapshotSaveTest()
        : m_Stream(16)
    {
        m_Definition.BindTo(m_Stream);
        Fill(m_Stream, 1000);
    }

    // The file at Path() loads, and has so many particles.
    void ExpectFile(u32 particleCount)
    {
        CParticleStream_MainMemory loaded(1);
        Snapshot::SLoadedDefinition definition;
        EXPECT_TRUE(Snapshot::Load(Path(), definition, loaded));
        EXPECT_EQ(loaded.ParticleCount(), particleCount);
    }
    void ExpectOneReport(const char *text)
    {
        const std::vector<SSeenReport> reports = m_Reports.Take();
        ASSERT_EQ(reports.size(), 1u);
        EXPECT_NE(reports[0].m_Message.find(text), std::string::npos) << reports[0].m_Message;
    }

    CParticleStream_MainMemory m_Stream;
};

TEST_F(SnapshotSaveTest, FullDiskLeavesTheOldFile)
{
    ASSERT_TRUE(Snapshot::Save(m_Stream, Path()));
    Fill(m_Stream, 1000);
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    for (const rlim_t bytes : {0ul, 100ul, 4000ul, 20000ul, 40000ul})
    {
        const rlimit small = {bytes, limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        EXPECT_FALSE(Snapshot::Save(m_Stream, Path())) << bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
        ExpectOneReport("File too large");
        ExpectFile(1000);
        EXPECT_FALSE(std::filesystem::exists(m_Path + ".part"));
    }
    EXPECT_TRUE(Snapshot::Save(m_Stream, Path()));
    ExpectFile(2000);
}

TEST_F(SnapshotSaveTest, WhatCanNotBeSavedIsReported)
{
    CParticleStream_MainMemory unbound(1);
    EXPECT_FALSE(Snapshot::Save(unbound, Path()));
    ExpectOneReport("the stream has no definition");
    EXPECT_FALSE(Snapshot::Save(m_Stream, (m_Folder + "/missing/file").c_str()));
    ExpectOneReport("No such file");
    EXPECT_FALSE(Snapshot::Save(m_Stream, m_Folder.c_str()));
    ExpectOneReport("Is a directory");
    m_Path = m_Folder + "/pipe";
    ASSERT_EQ(::mkfifo(Path(), 0600), 0);
    EXPECT_FALSE(Snapshot::Save(m_Stream, Path()));
    ExpectOneReport("not a regular file");
    std::filesystem::remove(m_Path);
    Snapshot::SSaveOptions options;
    options.m_DeflateLevel = 10;
    EXPECT_FALSE(Snapshot::Save(m_Stream, Path(), options));
    ExpectOneReport("10 is no level of deflate");
    EXPECT_TRUE(std::filesystem::is_empty(m_Folder));
}

// Another thread takes the page lock while the file is written; the pages have readers as long.
TEST_F(SnapshotSaveTest, PagesAreHeldButNotLocked)
{
    struct SSeen
    {
        CParticleStream_MainMemory &m_Stream;
        std::vector<u32> m_Done;
        u32 m_Born = 0;
    } seen = {m_Stream, {}, 0};
    Snapshot::SSaveOptions options;
    options.m_ProgressData = &seen;
    options.m_Progress = [](u32 done, u32 count, void *data)
    {
        SSeen &self = *static_cast<SSeen *>(data);
        EXPECT_EQ(count, 1000u);
        EXPECT_FALSE(self.m_Stream.Page(CGuid(0))->ReadyToWrite());
        std::thread([&] { self.m_Born += self.m_Stream.AllocateParticlesIFP(16, 16).ParticleCount(); }).join();
        self.m_Done.push_back(done);
        return true;
    };
    EXPECT_TRUE(Snapshot::Save(m_Stream, Path(), options));
    EXPECT_TRUE(m_Stream.Page(CGuid(0))->ReadyToWrite());
    EXPECT_TRUE(std::is_sorted(seen.m_Done.begin(), seen.m_Done.end()) && seen.m_Done.back() == 1000);
    EXPECT_EQ(seen.m_Born, 63u * 16); // one a page
    ExpectFile(1000);
}

TEST_F(SnapshotSaveTest, CallbackEndsSaveAndLoad)
{
    ASSERT_TRUE(Snapshot::Save(m_Stream, Path()));
    Fill(m_Stream, 500);
    Snapshot::SSaveOptions options;
    options.m_Progress = [](u32 done, u32, void *) { return done < 700; };
    EXPECT_FALSE(Snapshot::Save(m_Stream, Path(), options));
    ExpectFile(1000);
    Snapshot::SLoadOptions loadOptions;
    loadOptions.m_Progress = options.m_Progress;
    Snapshot::SLoadedDefinition definition;
    EXPECT_FALSE(Snapshot::Load(Path(), definition, m_Stream, loadOptions));
    EXPECT_EQ(m_Stream.ParticleCount(), 1500u);
}

TEST_F(SnapshotSaveTest, BoundStreamConvertsByName)
{
    CDefinition whole, own;
    CTestStream stream(16, whole.Stored(Life, BaseType_Float).Stored(Position, BaseType_Float3), {16, 3});
    ASSERT_TRUE(Snapshot::Save(stream, Path()));
    own.Stored(Extra, BaseType_I8).Stored(Life, BaseType_Int2).Constant(Tag, BaseType_UByte3, u32(7));
    CTestStream bound(100, own);
    Fill(bound, 3);
    Snapshot::SLoadedDefinition definition;
    ASSERT_TRUE(Snapshot::Load(Path(), definition, bound));
    EXPECT_TRUE(bound.GetStreamDef() == &own.Def() && *definition.Def() == whole.Def() && bound.PageSize() == 100);
    EXPECT_EQ(bound.Values<u8>(Extra), std::vector<u8>(19, 0));
    for (int i = 0; i < 19; ++i)
        EXPECT_EQ(bound.Values<CInt2>(Life).at(size_t(i)), CInt2(i, 0));
    EXPECT_EQ(bound.Values<u8>(Tag), std::vector<u8>(19, 7));
}

// 20 writers are killed at random moments: the file is one of the states that were saved, whole.
TEST_F(SnapshotSaveTest, KilledWritersLeaveWholeFiles)
{
    std::minstd_rand random(17);
    CParticleStream_MainMemory large(1024);
    m_Definition.BindTo(large);
    Fill(large, 200000);
    ASSERT_TRUE(Snapshot::Save(m_Stream, Path()));
    for (int i = 0; i < 20; ++i)
    {
        const pid_t child = ::fork();
        if (child == 0)
        {
            for (;;)
            {
                Snapshot::Save(large, Path());
                Snapshot::Save(m_Stream, Path());
            }
        }
        ::usleep(useconds_t(random() % 30000));
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        CParticleStream_MainMemory loaded(1);
        Snapshot::SLoadedDefinition definition;
        ASSERT_TRUE(Snapshot::Load(Path(), definition, loaded));
        ExpectSame(loaded, loaded.ParticleCount() == 1000 ? m_Stream : large);
    }
    EXPECT_TRUE(Snapshot::Save(m_Stream, Path())); // over what a killed writer may have left
    EXPECT_FALSE(std::filesystem::exists(m_Path + ".part"));
}
