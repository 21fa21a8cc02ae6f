// Intrusive reference counting.

#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <support/allocator_hook.h>
#include <support/report_recorder.h>
#include <tz_kernel/include/kr_refptr.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

struct SNode;
using PNode = TRefPtr<SNode>;
using PCNode = TRefPtr<const SNode>;

struct SNode : public CRefCountedObject
{
    SNode(std::vector<int> &deaths, int id)
        : m_Deaths(deaths)
        , m_Id(id)
    {
    }
    ~SNode() override { m_Deaths.push_back(m_Id); }

    std::vector<int> &m_Deaths;
    int m_Id;
    PNode m_Next;
};

class RefPtr : public ::testing::Test
{
protected:
    PNode Make(int id) { return Mem::New<SNode>(TZ_CALL_SITE, m_Deaths, id); }

    CAllocatorHook m_Memory; // each object dies once, with the origin that it was made with
    CReportRecorder m_Reports;
    std::vector<int> m_Deaths;
};

TEST_F(RefPtr, CountsEveryHolderAndDestroysWithTheLast)
{
    PNode a = Make(1);
    EXPECT_EQ(a->StrongRefCount(), 1u);
    {
        const PNode b = a;
        const PCNode c = b;
        EXPECT_EQ(a->StrongRefCount(), 3u);
        EXPECT_TRUE(a == b && c == a && a != null && b == a.Get());
    }
    PNode moved = std::move(a);
    EXPECT_EQ(moved->StrongRefCount(), 1u);
    EXPECT_TRUE(a == null);
    moved = moved.Get();
    EXPECT_EQ(moved->StrongRefCount(), 1u) << "the same object: nothing happens";
    a = std::move(moved);
    EXPECT_TRUE(m_Deaths.empty());
    a = null;
    EXPECT_EQ(m_Deaths, std::vector<int>{1});
}

TEST_F(RefPtr, AssignmentTakesTheNewBeforeItDropsTheOld)
{
    PNode node = Make(1);
    node->m_Next = Make(2);
    node->m_Next->m_Next = Make(3);
    node = node->m_Next;
    EXPECT_EQ(m_Deaths, std::vector<int>{1});
    EXPECT_EQ(node->m_Id, 2);
    EXPECT_EQ(node->StrongRefCount(), 1u);
    node = std::move(node->m_Next);
    EXPECT_EQ(node->m_Id, 3);
    node = node->m_Next;
    EXPECT_EQ(m_Deaths, (std::vector<int>{1, 2, 3}));
}

TEST_F(RefPtr, UnderflowIsReportedAndDestroysNothing)
{
    PNode node = Make(1);
    node->_InternalRemoveReference(); // the pointer's own reference, behind its back
    CRefCountedObject::RemoveReference(node.Get());
    const std::vector<SSeenReport> seen = m_Reports.Take();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].m_Text, "s32(nrc) >= 0");
    EXPECT_EQ(seen[0].m_Message, R"(/!\ strong refcount underflow /!\)");
    EXPECT_TRUE(m_Deaths.empty());
    node->AddReference();
    node->AddReference();
    CRefCountedObject::RemoveReference(static_cast<SNode *>(null));
}

TEST_F(RefPtr, NullAccessIsReportedAtEachOperator)
{
    const PNode node;
    EXPECT_EQ(node.operator->(), nullptr);
    m_Reports.Expect({"_P::m_Ptr != null"});
    EXPECT_EQ(node.Get(), nullptr);
}

TEST_F(RefPtr, ThreadsShareAnObject)
{
    PNode node = Make(1);
    std::thread other(
        [copy = node]
        {
            for (int i = 0; i < 2000; ++i)
                PNode(copy.Get());
        });
    for (int i = 0; i < 2000; ++i)
        PNode(node.Get());
    node = null;
    other.join();
    EXPECT_EQ(m_Deaths, std::vector<int>{1});
}

} // namespace
} // namespace Tests
} // namespace Tessaly
