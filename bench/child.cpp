#include "child.h"

#include <cstdlib>
#include <cstring>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench
{

namespace
{

// What the child leaves for its parent.
struct SMailbox
{
    static constexpr size_t kMaxSideCount = 8, kMaxRoundCount = 1000;

    struct SSideFigures
    {
        ESide m_Kind;
        char m_Name[64];
        double m_Target;
        double m_Values[kMaxRoundCount];
    };

    size_t m_SideCount;
    size_t m_RoundCount;
    SSideFigures m_Sides[kMaxSideCount];
};

void Put(const SRowResult &result, SMailbox &mailbox)
{
    mailbox.m_SideCount = result.m_Sides.size();
    mailbox.m_RoundCount = result.m_Values.front().size();
    if (mailbox.m_SideCount > SMailbox::kMaxSideCount || mailbox.m_RoundCount > SMailbox::kMaxRoundCount)
        std::abort();
    for (size_t i = 0; i < mailbox.m_SideCount; ++i)
    {
        SMailbox::SSideFigures &figures = mailbox.m_Sides[i];
        figures.m_Kind = result.m_Sides[i].m_Kind;
        std::strncpy(figures.m_Name, result.m_Sides[i].m_Name.c_str(), sizeof(figures.m_Name) - 1);
        figures.m_Target = result.m_Sides[i].m_Target;
        std::memcpy(figures.m_Values, result.m_Values[i].data(), mailbox.m_RoundCount * sizeof(double));
    }
}

SRowResult Take(const SRow &row, const SMailbox &mailbox)
{
    SRowResult result = {row, {}, {}};
    for (size_t i = 0; i < mailbox.m_SideCount; ++i)
    {
        const SMailbox::SSideFigures &figures = mailbox.m_Sides[i];
        result.m_Sides.push_back({figures.m_Kind, figures.m_Name, {}, figures.m_Target});
        result.m_Values.emplace_back(figures.m_Values, figures.m_Values + mailbox.m_RoundCount);
    }
    return result;
}

} // namespace

SRowResult MeasureInChild(const SRow &row, const std::function<SRowResult()> &measure)
{
    void *shared = mmap(nullptr, sizeof(SMailbox), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    std::fflush(stdout);
    const pid_t child = shared != MAP_FAILED ? fork() : -1;
    if (child == 0)
    {
        Put(measure(), *static_cast<SMailbox *>(shared));
        std::fflush(stderr);
        _exit(0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0)
    {
        std::fprintf(stderr, "%s: %s: failed\n", row.m_Group.c_str(), row.m_Work.c_str());
        std::exit(1);
    }
    const SRowResult result = Take(row, *static_cast<SMailbox *>(shared));
    munmap(shared, sizeof(SMailbox));
    return result;
}

} // namespace Bench
