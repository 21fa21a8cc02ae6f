// Conversion of columns, and rebinding of whole streams.
#include "plain_blocks.h"
#include "row.h"

#include <tz_particles/src/Storage/MainMemory/storage_ram_convert.h>

namespace Bench
{

namespace
{

struct SConversion
{
    const char *m_Title;
    EBaseTypeID m_From;
    EBaseTypeID m_To;
};

constexpr SConversion kConversions[] = {
    {"float to int", BaseType_Float, BaseType_I32},
    {"int to float", BaseType_I32, BaseType_Float},
    {"Float3 to Float4", BaseType_Float3, BaseType_Float4},
    {"Float3 to Int3", BaseType_Float3, BaseType_Int3},
};

// Reads and writes as many bytes as a conversion does: the smaller number is copied, the rest cleared.
void CopyAsMany(const u8 *from, size_t fromBytes, u8 *to, size_t toBytes)
{
    std::memcpy(to, from, fromBytes);
    std::memset(to + fromBytes, 0, toBytes - fromBytes);
}

// As one writes it for fields whose types are known at run time only: row by row, component by component.
TZ_NOINLINE void ConvertPlainly(const SParticleStreamField &from, const SParticleStreamField &to, u32 rowCount)
{
    const CBaseTypeTraits &fromType = CBaseTypeTraits::Traits(from.m_Definition.m_Type);
    const CBaseTypeTraits &toType = CBaseTypeTraits::Traits(to.m_Definition.m_Type);
    const u32 componentCount = TZMin(fromType.VectorDimension, toType.VectorDimension);
    for (u32 row = 0; row < rowCount; ++row)
    {
        const u8 *source = from.m_RawDataPtr + size_t(row) * from.m_Definition.m_StorageSize;
        u8 *target = to.m_RawDataPtr + size_t(row) * to.m_Definition.m_StorageSize;
        for (u32 i = 0; i < toType.VectorDimension; ++i)
        {
            if (i >= componentCount)
                std::memset(target + 4 * i, 0, 4);
            else if (fromType.IsFp == toType.IsFp)
                std::memcpy(target + 4 * i, source + 4 * i, 4);
            else if (fromType.IsFp)
                reinterpret_cast<s32 *>(target)[i] = s32(reinterpret_cast<const float *>(source)[i]);
            else
                reinterpret_cast<float *>(target)[i] = float(reinterpret_cast<const s32 *>(source)[i]);
        }
    }
}

// Columns of a page's size, one behind the other, in two runs of warm memory.
class CColumnPairs
{
public:
    CColumnPairs(const SConversion &conversion, u32 rowCount)
        : m_From(Field(Field_Position, conversion.m_From))
        , m_To(Field(Field_Position, conversion.m_To))
        , m_ColumnCount((rowCount + kPageSize - 1) / kPageSize)
        , m_FromBytes(size_t(kPageSize) * m_From.m_Definition.m_StorageSize)
        , m_ToBytes(size_t(kPageSize) * m_To.m_Definition.m_StorageSize)
        , m_FromBlock(m_FromBytes * m_ColumnCount)
        , m_ToBlock(m_ToBytes * m_ColumnCount)
    {
        const bool isFp = CBaseTypeTraits::Traits(conversion.m_From).IsFp;
        for (size_t lane = 0; lane < m_FromBytes * m_ColumnCount / 4; ++lane)
        {
            const float value = float(lane % kPageSize);
            const u32 bits = u32(lane % kPageSize);
            std::memcpy(m_FromBlock.Block(0) + 4 * lane, isFp ? static_cast<const void *>(&value) : &bits, 4);
        }
        m_From.m_ParticleCount = kPageSize;
        m_To.m_ParticleCount = kPageSize;
    }

    template <typename _Convert>
    void ForEach(_Convert convert)
    {
        for (size_t i = 0; i < m_ColumnCount; ++i)
        {
            m_From.m_RawDataPtr = m_FromBlock.Block(0) + i * m_FromBytes;
            m_To.m_RawDataPtr = m_ToBlock.Block(0) + i * m_ToBytes;
            convert(m_From, m_To);
        }
    }
    void CopyColumns()
    {
        ForEach([&](const SParticleStreamField &from, const SParticleStreamField &to)
                { CopyAsMany(from.m_RawDataPtr, m_FromBytes, to.m_RawDataPtr, m_ToBytes); });
    }

private:
    SParticleStreamField m_From, m_To;
    size_t m_ColumnCount;
    size_t m_FromBytes, m_ToBytes; // of a column
    CPlainBlocks m_FromBlock, m_ToBlock;
};

void AddConversionRow(const SConversion &conversion, u32 rowCount)
{
    const bool isInCache = rowCount <= kPageSize;
    const u32 convertedCount = (isInCache ? 8 : 1) * kParticleCount;
    const auto body = [=](const RunSides &run)
    {
        CColumnPairs pairs(conversion, rowCount);
        const auto repeat = [&](CMeter &meter, auto once)
        {
            meter.Time(
                [&]
                {
                    for (u32 done = 0; done < convertedCount; done += rowCount)
                    {
                        once();
                        ClobberMemory();
                    }
                });
        };
        const auto convert = [](const SParticleStreamField &from, const SParticleStreamField &to)
        { ConvertField(from, to, kPageSize); };
        const auto convertPlainly = [](const SParticleStreamField &from, const SParticleStreamField &to)
        { ConvertPlainly(from, to, kPageSize); };
        run({Ours([&](CMeter &meter) { repeat(meter, [&] { pairs.ForEach(convert); }); }),
             Limit("memcpy", isInCache ? 2.2 : 1.25,
                   [&](CMeter &meter) { repeat(meter, [&] { pairs.CopyColumns(); }); }),
             Peer("plain loop", isInCache ? 0.5 : 0.0,
                  [&](CMeter &meter) { repeat(meter, [&] { pairs.ForEach(convertPlainly); }); })});
    };
    AddRow({"8", std::string(conversion.m_Title) + ", " + std::to_string(rowCount) + (isInCache ? " in cache" : ""),
            double(convertedCount), "ns a row", 0.0,
            "memcpy moves up to 64 bytes at a time, a conversion for x86-64-v2 16"},
           body);
}

} // namespace

void AddConversionRows()
{
    for (const u32 rowCount : {kParticleCount, kPageSize})
    {
        for (const SConversion &conversion : kConversions)
            AddConversionRow(conversion, rowCount);
    }
}

} // namespace Bench
