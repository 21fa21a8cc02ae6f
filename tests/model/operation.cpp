#include "operation.h"

#include <cstdio>

namespace Tessaly::Model
{

constexpr size_t kBytes = 8;
constexpr u32 kStreamCount = 3;

// How often a random script has it.
static const struct
{
    const char *m_Name;
    u32 m_Weight;
} kKinds[u32(EOperation::Count)] = {
    {"Bind", 9},         {"BindAgain", 3},   {"Replace", 1},      {"Allocate", 14},      {"AllocateAll", 5},
    {"Fill", 10},        {"Remove", 6},      {"RemoveInPage", 2}, {"AllocateInPage", 3}, {"RegisterCount", 1},
    {"CorrectCount", 2}, {"SetPageSize", 6}, {"Resize", 7},       {"Recount", 1},        {"Collect", 5},
    {"DeepCopy", 3},     {"Swap", 2},        {"Clear", 1},        {"Cleanup", 1},        {"MakePage", 3},
    {"TakeView", 2},     {"DropView", 2},    {"BeginRead", 4},    {"EndRead", 2},        {"CopySubRange", 3},
    {"CopyPage", 2},     {"Transfer", 3},    {"Query", 2},        {"SetBudget", 1},      {"Update", 1}};

u32 CountOf(u16 argument)
{
    static const u32 kCounts[] = {0, 1, 2, 3, 5, 17, 63, 64, 65, 100, 255, 256, 300, 512, 1000, 1025};
    static const u32 kHuge[] = {65536, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    if (argument % 64 == 63)
        return kHuge[argument / 64 % 4];
    return argument % 2 == 0 ? kCounts[argument / 2 % 16] : argument / 2 % 150;
}

u32 PageSizeOf(u16 argument)
{
    static const u32 kSizes[] = {1, 3, 63, 64, 65, 100, 512, 1024, 2, 7, 20, 65, 256, 1000, 64, 0};
    static const u32 kHuge[] = {4096, 65535, 65536, 65537, 1000000, 0x10000000, 0x80000000, 0xFFFFFFFF};
    return argument % 8 == 7 ? kHuge[argument / 8 % 8] : kSizes[argument / 8 % 16];
}

Script Decode(const u8 *bytes, size_t size)
{
    Script script;
    const auto word = [&](size_t at) { return u16(bytes[at] | bytes[at + 1] << 8); };
    for (size_t i = 0; i + kBytes <= size; i += kBytes)
        script.push_back({EOperation(bytes[i] % u32(EOperation::Count)), u8(bytes[i + 1] % kStreamCount), word(i + 2),
                          word(i + 4), word(i + 6)});
    return script;
}

std::vector<u8> Encode(const Script &script)
{
    std::vector<u8> bytes;
    for (const SOperation &operation : script)
    {
        bytes.insert(bytes.end(), {u8(operation.m_Kind), operation.m_Stream});
        for (const u16 argument : {operation.m_A, operation.m_B, operation.m_C})
            bytes.insert(bytes.end(), {u8(argument), u8(argument >> 8)});
    }
    return bytes;
}

std::string ToString(const Script &script)
{
    std::string text;
    for (const SOperation &operation : script)
    {
        char line[160];
        const int count = std::snprintf(
            line, sizeof(line),
            "    {EOperation::%s, %u, %u, %u, %u}, // count %u or page size %u; count %u; count %u\n",
            kKinds[u32(operation.m_Kind)].m_Name, operation.m_Stream, operation.m_A, operation.m_B, operation.m_C,
            CountOf(operation.m_A), PageSizeOf(operation.m_A), CountOf(operation.m_B), CountOf(operation.m_C));
        text.append(line, size_t(count));
    }
    return text;
}

Script RandomScript(u64 seed, u32 length)
{
    CRandom random(seed);
    u32 weightSum = 0;
    for (const auto &kind : kKinds)
        weightSum += kind.m_Weight;
    Script script;
    const u32 streamCount = 1 + random.Below(kStreamCount);
    while (script.size() < length)
    {
        u32 kind = 0;
        for (u32 weight = random.Below(weightSum); weight >= kKinds[kind].m_Weight; ++kind)
            weight -= kKinds[kind].m_Weight;
        const u64 bits = random.Bits();
        script.push_back({EOperation(kind), u8(random.Below(streamCount)), u16(bits), u16(bits >> 16),
                          u16(random.OneIn(4) ? 0 : bits >> 32)});
    }
    return script;
}

Script LongListScript(u64 seed)
{
    CRandom random(seed);
    const auto any = [&random] { return u16(random.Bits()); };
    Script script;
    for (u8 stream = 0; stream < 2; ++stream)
    {
        const u16 firstPage = u16(stream * 8 + 7); // by the second view that is taken
        script.insert(script.end(), {{EOperation::Bind, stream, any(), 0, 0},
                                     {EOperation::SetPageSize, stream, 8, 0, 0},
                                     {EOperation::AllocateAll, stream, 26, 0, 0},
                                     {EOperation::TakeView, stream, any(), 0, 0},
                                     {EOperation::TakeView, stream, 0, 0, 0},
                                     {EOperation::RemoveInPage, stream, 0, 0, 0},
                                     {EOperation::Collect, stream, 0, 0, 0},
                                     {EOperation::AllocateInPage, stream, firstPage, 2, 0},
                                     {EOperation::SetPageSize, stream, any(), 0, 0},
                                     {EOperation::Resize, stream, 0, 3, 0},
                                     {EOperation::Remove, stream, u16(any() | 3), 6, 0}});
    }
    return script;
}

} // namespace Tessaly::Model
