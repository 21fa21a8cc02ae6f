// The dynamic array: growth, refusals, removal, views, the monitor. And reference counting.
#include <gtest/gtest.h>

#include <support/allocator_hook.h>
#include <support/report_recorder.h>
#include <tz_kernel/include/kr_containers_array.h>
#include <tz_kernel/include/kr_refptr.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

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

class Array : public ::testing::Test
{
protected:
    void PushNumbers(TArray<u32> &array, u32 count)
    {
        for (u32 i = 0; i < count; ++i)
            EXPECT_EQ(array.PushBack(i), i);
    }
    static std::vector<u32> Elements(const TArray<u32> &array) { return {array.View().begin(), array.View().end()}; }
    PNode Make(int id) { return Mem::New<SNode>(TZ_CALL_SITE, m_Deaths, id); }

    std::vector<int> m_Deaths;
    CAllocatorHook m_Memory; // each object dies once, with the origin that it was made with
    CReportRecorder m_Reports;
};

using RefPtr = Array;

TEST_F(Array, CapacityFollowsTheGrowthFactorAndReserveIsExact)
{
    TArray<u32> array;
    EXPECT_EQ(array.RawDataPointer(), nullptr);
    std::vector<u32> capacities;
    for (u32 i = 0; i < 45; ++i)
    {
        array.PushBack(i);
        if (capacities.empty() || capacities.back() != array.Capacity())
            capacities.push_back(array.Capacity());
    }
    EXPECT_EQ(capacities, (std::vector<u32>{9, 23, 44, 45 + 22 + 8}));
    EXPECT_TRUE(array.First() == 0 && array.Last() == 44);
    array.Clear();
    EXPECT_EQ(array.Capacity(), 75u);
    array.Clean();
    EXPECT_EQ(array.Capacity(), 0u);
    EXPECT_TRUE(array.Reserve(5) && array.Reserve(4));
    EXPECT_EQ(array.Capacity(), 5u);
}

TEST_F(Array, RefusedGrowthIsReportedAndChangesNothing)
{
    TArray<u32> array;
    PushNumbers(array, 9);
    m_Memory.RefuseFrom(1);
    EXPECT_EQ(array.PushBack(9u), CGuid::INVALID);
    EXPECT_FALSE(array.Reserve(100));
    array = TMemoryView<const u32>(std::vector<u32>(10).data(), 10);
    EXPECT_EQ(m_Reports.Take().at(0).m_Message, "could not grow array of TArray<> to 23 elements (92 bytes)\n");
    EXPECT_EQ(array.Capacity(), 9u);
    EXPECT_EQ(Elements(array), (std::vector<u32>{0, 1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST_F(Array, GrowthPastTheCountersRangeIsRefused)
{
    struct SOpenArray : TArray<u32>
    {
        using TArray<u32>::_Grow;
    } array;
    EXPECT_FALSE(array._Grow(0xF0000000u));
    m_Reports.Expect({"static_cast<typename TType_StripQual<_TypeSrc>::Type>(result) == value"});
    EXPECT_EQ(m_Memory.RequestCount(), 0u);
    EXPECT_TRUE(array.Reserve(4) && array._Grow(4)); // no growth at all
    m_Reports.Expect({"wishedSize > _MaxCount()"});
}

TEST_F(Array, OwnElementIsReportedAndAppendedEvenWhileGrowing)
{
    TArray<u32> array, full;
    PushNumbers(array, 9);
    EXPECT_EQ(array.PushBack(array[8]), 9u);
    m_Reports.AtEachReport([&](const Assert::SReport &) { array.PushBackUnsafe(5u); });
    EXPECT_EQ(array.PushBackUnsafe(array[9]), 11u) << "the handler's own has index 10";
    m_Reports.AtEachReport({});
    const std::string text = "ureg(&element + 1) <= ureg(BaseImpl::_Data()) || "
                             "ureg(&element) >= ureg(BaseImpl::_Data() + BaseImpl::_Count())";
    m_Reports.Expect({text, text});
    EXPECT_EQ(array.Last(), 8u);
    EXPECT_EQ(full.PushBackUnsafe(1u), CGuid::INVALID);
    m_Reports.Expect({"insertionIndex < BaseImpl::_MaxCount()"});
}

TEST_F(Array, RemovalReleasesInOrderAndMovesBytes)
{
    TArray<PNode> array;
    for (int i = 0; i < 10; ++i)
        array.PushBack(Make(i)); // moved once, by growing
    array.Remove(9);
    array.Remove(0);
    EXPECT_EQ(array[0]->m_Id, 8);
    array.Remove_AndKeepOrder(1, 3);
    array.Remove_AndKeepOrder(5);
    EXPECT_EQ(m_Deaths, (std::vector<int>{9, 0, 1, 2, 7}));
    for (const PNode &element : array.View())
        EXPECT_EQ(element->StrongRefCount(), 1u);
    array.Clear();
    EXPECT_EQ(m_Deaths, (std::vector<int>{9, 0, 1, 2, 7, 8, 3, 4, 5, 6}));
}

TEST_F(Array, RemovalOutOfRangeIsReportedAndRemovesNothing)
{
    TArray<u32> array;
    PushNumbers(array, 3);
    array.Remove(3);
    array.Remove_AndKeepOrder(3);
    array.Remove_AndKeepOrder(2, 2);
    EXPECT_GE(m_Reports.Take().size(), 3u);
    EXPECT_EQ(Elements(array), (std::vector<u32>{0, 1, 2}));
}

TEST_F(Array, IndexOutOfRangeIsReportedAndGuarded)
{
    struct SOwn // a type of this test's own, since its site stays silent
    {
        u32 m_Value;
    };
    TArray<SOwn> array;
    m_Reports.AnswerWith(Assert::Result_Ignore);
    for (u32 i = 0; i < 2; ++i)
        EXPECT_EQ(array[1].m_Value, 0u) << "silencing the site removes no guard";
    m_Reports.Expect({"pos < BaseImpl::_Count()"});
    m_Reports.AnswerWith(Assert::Result_Continue);
    array.Reserve(2);
    array.RawDataPointer()[1].m_Value = 7;
    const TArray<SOwn> &constArray = array;
    EXPECT_TRUE(constArray[1].m_Value == 7 && constArray[2].m_Value == 0) << "within the capacity, and beyond it";
    EXPECT_EQ(array[1].m_Value, 7u) << "by the silent site";
    m_Reports.Expect({"pos < BaseImpl::_Count()", "pos < BaseImpl::_Count()"});
    EXPECT_TRUE(&array.First() != array.RawDataPointer() && &constArray.Last() == &array.First());
}

TEST_F(Array, IsMadeFromAndAssignedViews)
{
    u32 words[4] = {1, 2, 3, 4};
    TArray<u32> array{TMemoryView<const u32>(words, 4)}, zeros(3);
    array = TStridedMemoryView<const u32>(words, 2, 8);
    EXPECT_EQ(Elements(array), (std::vector<u32>{1, 3}));
    array = TMemoryView<const u32>(array.RawDataPointer() + 1, 1);
    TZSwap(array, zeros);
    EXPECT_EQ(Elements(zeros), std::vector<u32>{3}) << "a view on its own elements";
    EXPECT_EQ(array.Count(), 3u);
}

TEST_F(Array, MonitorCountsABufferBeforeItChanges)
{
    TArray<u32> array;
    g_KRContainersConfig_MonitorTArrays = true;
    const s64 before = CContainersMonitorTArrays::TotalBytes();
    s64 atRequest = 0;
    m_Memory.AtEachCall([&](const SMemoryCall &) { atRequest = CContainersMonitorTArrays::TotalBytes() - before; });
    array.PushBack(1u);
    EXPECT_EQ(atRequest, 36);
    m_Memory.RefuseAt(1);
    EXPECT_FALSE(array.Reserve(20));
    EXPECT_EQ(atRequest, 80) << "also of one that is then refused";
    g_KRContainersConfig_MonitorTArrays = false;
    m_Reports.Expect({"false"});
    m_Memory.AtEachCall({});
}

TEST_F(RefPtr, CountsEveryHolderAndDestroysWithTheLast)
{
    PNode a = Make(1);
    {
        const PNode b = a;
        const PCNode c = b;
        EXPECT_EQ(a->StrongRefCount(), 3u);
        EXPECT_TRUE(a == b && c == a && a != null && b == a.Get());
    }
    PNode moved = std::move(a);
    moved = moved.Get();
    EXPECT_EQ(moved->StrongRefCount(), 1u) << "the same object: nothing happens";
    a.Copy(moved.Get());
    EXPECT_EQ(moved->StrongRefCount(), 2u);
    a = null;
    EXPECT_EQ(a.operator->(), nullptr);
    m_Reports.Expect({"_P::m_Ptr != null"});
    EXPECT_TRUE(m_Deaths.empty());
    moved = null;
    EXPECT_EQ(m_Deaths, std::vector<int>{1});
}

TEST_F(RefPtr, AssignmentTakesTheNewBeforeItDropsTheOld)
{
    PNode node = Make(1);
    node->m_Next = Make(2);
    node->m_Next->m_Next = Make(3);
    node = node->m_Next;
    EXPECT_EQ(node->StrongRefCount(), 1u);
    node = std::move(node->m_Next);
    EXPECT_EQ(m_Deaths, (std::vector<int>{1, 2}));
    node->_InternalRemoveReference(); // the pointer's own reference
    CRefCountedObject::RemoveReference(node.Get());
    m_Reports.Expect({"s32(nrc) >= 0"});
    EXPECT_EQ(m_Deaths.size(), 2u) << "an underflow destroys nothing";
    node->AddReference();
    node->AddReference();
    CRefCountedObject::RemoveReference(static_cast<SNode *>(null));
}
