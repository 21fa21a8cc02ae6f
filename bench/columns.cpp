// Passes over columns: by views, by ForEach, RemoveIf and ForEachPageOn; and conversion of columns.
#include <cmath>
#include <thread>

#include <tz_particles/src/Storage/MainMemory/storage_ram_convert.h>

#include "measure.h"
#include "peers.h"

using namespace Bench;

// position[i] += velocity[i] * step; see column_pass.cpp.
void MoveRows_Baseline(float *position, const float *velocity, float step, unsigned count);
void MoveRows_Native(float *position, const float *velocity, float step, unsigned count);

namespace
{

constexpr float kTimeStep = 1.0f / 60.0f;

template <typename _Particles>
struct TPass
{
    u32 m_Count;
    void (*m_Pass)(_Particles &);
    _Particles m_Particles{m_Count};

    void Run() { m_Pass(m_Particles); }
};

// A repetition goes over so many particles until it has met a million.
template <typename _Particles>
benchmark::internal::Benchmark *AddPass(const std::string &name, u32 count, void (*pass)(_Particles &))
{
    return Add<TPass<_Particles>>(name, count, count, pass)->Iterations(kParticleCount / count);
}

// By views, as a host does.
template <void (*_OnView)(const CParticlePageView &)>
void ByViews(CStream &stream)
{
    const CScopedPagesLock lock(stream);
    for (u32 i = 0; i < stream.PageCount(); ++i)
        _OnView(CParticlePageView(stream.Page(CGuid(i))));
}

// Without a view and without a check.
template <void (*_OnPage)(const CParticlePage &)>
void ByPages(CStream &stream)
{
    for (u32 i = 0; i < stream.PageCount(); ++i)
        _OnPage(*stream._UnsafePage(CGuid(i)).Get());
}

template <typename _Type>
_Type *Column(const CParticlePage &page, EField field)
{
    return reinterpret_cast<_Type *>(page.Streams().Data()[field].m_RawDataPtr);
}

template <auto _MoveRows>
void MoveView(const CParticlePageView &view)
{
    _MoveRows(&view.DenseColumnForWriting<CFloat3>(Field_Position).Data()->m_X,
              &view.DenseColumn<CFloat3>(Field_Velocity).Data()->m_X, kTimeStep, 3 * view.ParticleCount());
}

template <auto _MoveRows>
void MoveFlat(SColumns &columns)
{
    _MoveRows(&columns.m_Position[0].m_X, &columns.m_Velocity[0].m_X, kTimeStep, 3 * columns.ParticleCount());
}

void Move(CFloat3 &position, const CFloat3 &velocity)
{
    position.m_X += velocity.m_X * kTimeStep;
    position.m_Y += velocity.m_Y * kTimeStep;
    position.m_Z += velocity.m_Z * kTimeStep;
}

void MoveStructs(SStructs &structs)
{
    structs.ForEach([](CFloat3 &position, const CFloat3 &velocity, float &) { Move(position, velocity); });
}

TZ_NOINLINE void AgeRows(float *life, u32 count)
{
    for (u32 i = 0; i < count; ++i)
        life[i] -= kTimeStep;
}

void AgeDenseView(const CParticlePageView &view)
{
    const TMemoryView<float> life = view.DenseColumnForWriting<float>(Field_Life);
    AgeRows(life.Data(), life.Count());
}

void AgePage(const CParticlePage &page) { AgeRows(Column<float>(page, Field_Life), page.ParticleCount()); }

void AgeStridedView(const CParticlePageView &view)
{
    for (float &life : view.ColumnForWriting<float>(Field_Life))
        life -= kTimeStep;
}

void AgeStridedPage(const CParticlePage &page)
{
    const SParticleStreamField &field = page.Streams().Data()[Field_Life];
    u8 *life = field.m_RawDataPtr;
    for (u32 i = 0, count = page.ParticleCount(); i < count; ++i, life += field.m_Definition.m_StorageSize)
        *reinterpret_cast<float *>(life) -= kTimeStep;
}

constexpr auto kMoveAndAge = [](CFloat3 &position, const CFloat3 &velocity, float &life)
{
    Move(position, velocity);
    life -= kTimeStep;
};

void MoveAndAge(CStream &stream) { stream.ForEach(kMoveAndAge); }

void MoveAndAgePage(const CParticlePage &page)
{
    CFloat3 *positions = Column<CFloat3>(page, Field_Position);
    const CFloat3 *velocities = Column<const CFloat3>(page, Field_Velocity);
    float *lives = Column<float>(page, Field_Life);
    const u32 count = page.ParticleCount();
    for (u32 row = 0; row < count; ++row)
        kMoveAndAge(positions[row], velocities[row], lives[row]);
}

// A tenth, at random places, is to die in each repetition and is born again before the next one.
struct SRemoveOver : TPass<CStream>
{
    void Prepare()
    {
        m_Particles.Refill(kParticleCount);
        u32 number = 0;
        m_Particles.ForEach([&](CFloat3 &, const CFloat3 &, float &life)
                            { life = Scramble(number++) % 10 == 0 ? 0.0f : 1.0f; });
    }
};

void RemoveOver(CStream &stream)
{
    Particles::RemoveIf<const float>(stream, Field_Life, [](float life) { return life <= 0.0f; });
}

void RemoveOverPlainly(CStream &stream)
{
    const CScopedPagesLock lock(stream);
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        const CParticlePage &page = *stream._UnsafePage(CGuid(i)).Get();
        const float *lives = Column<const float>(page, Field_Life);
        u32 rows[kPageSize], rowCount = 0;
        for (u32 row = 0; row < page.ParticleCount(); ++row)
        {
            rows[rowCount] = row;
            rowCount += lives[row] <= 0.0f ? 1 : 0;
        }
        stream.RemoveParticles(CGuid(i), {rows, rowCount});
    }
}

void NormaliseVelocities(const CParticlePageView &view)
{
    for (CFloat3 &v : view.DenseColumnForWriting<CFloat3>(Field_Velocity))
    {
        const float scale = 1.0f / std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z + 1.0f);
        v = CFloat3(v.x * scale + 1.0f, v.y * scale, v.z * scale);
    }
}

template <u32 _ThreadCount>
void NormaliseOnThreads(CStream &stream)
{
    const auto executor = [](u32 count, const auto &task)
    {
        std::atomic<u32> next{0};
        const auto work = [&]
        {
            for (u32 index = next++; index < count; index = next++)
                task(index);
        };
        std::thread other(_ThreadCount == 2 ? std::thread(work) : std::thread());
        work();
        if (other.joinable())
            other.join();
    };
    Particles::ForEachPageOn(executor, stream, &NormaliseVelocities);
}

using FnConvert = void (*)(const SParticleStreamField &from, const SParticleStreamField &to, u32 rowCount);

// Reads and writes as many bytes as a conversion does: the smaller number is copied, the rest cleared.
void CopyAsMany(const SParticleStreamField &from, const SParticleStreamField &to, u32 rowCount)
{
    const size_t fromBytes = size_t(rowCount) * from.m_Definition.m_StorageSize;
    std::memcpy(to.m_RawDataPtr, from.m_RawDataPtr, fromBytes);
    std::memset(to.m_RawDataPtr + fromBytes, 0, size_t(rowCount) * to.m_Definition.m_StorageSize - fromBytes);
}

// As one writes it for fields whose types are known at run time only: row by row, component by component.
void ConvertPlainly(const SParticleStreamField &from, const SParticleStreamField &to, u32 rowCount)
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

// All sides convert the same memory. The two runs of columns lie 2 KiB apart, modulo 4 KiB: no load aliases a store.
struct SConversion
{
    EBaseTypeID m_FromType, m_ToType;
    u32 m_RowCount;
    FnConvert m_Convert;

    void Run()
    {
        static std::vector<u8> memory[2] = {std::vector<u8>(17 << 20), std::vector<u8>(17 << 20)};
        SParticleStreamField from = _Field(m_FromType), to = _Field(m_ToType);
        for (u32 row = 0; row < m_RowCount; row += kPageSize)
        {
            from.m_RawDataPtr = memory[0].data() + size_t(row) * from.m_Definition.m_StorageSize;
            to.m_RawDataPtr = memory[1].data() + 2048 + size_t(row) * to.m_Definition.m_StorageSize;
            m_Convert(from, to, kPageSize);
        }
    }
    static SParticleStreamField _Field(EBaseTypeID type)
    {
        return SParticleStreamField(SParticleStreamFieldDef(CStringId(1), type, CBaseTypeTraits::Traits(type).Size));
    }
};

void AddConversion(const std::string &types, EBaseTypeID from, EBaseTypeID to, u32 rowCount)
{
    const auto add = [=](const char *side, FnConvert convert)
    {
        const std::string name = "convert_" + types + "_" + std::to_string(rowCount) + side;
        Add<SConversion>(name, rowCount, from, to, rowCount, convert)->Iterations(rowCount == kPageSize ? 8000 : 1);
    };
    add("/ours", &ConvertField);
    add("/limit", &CopyAsMany);
    add("/loop", &ConvertPlainly);
}

[[maybe_unused]] const bool kAreRegistered = []
{
    for (const u32 count : {10000u, kParticleCount})
    {
        const std::string end = "_" + std::to_string(count);
        AddPass("move_baseline" + end + "/ours", count, &ByViews<&MoveView<&MoveRows_Baseline>>);
        AddPass("move_baseline" + end + "/limit", count, &MoveFlat<&MoveRows_Baseline>);
        AddPass("move_baseline" + end + "/structs", count, &MoveStructs);
        AddPass("move_native" + end + "/ours", count, &ByViews<&MoveView<&MoveRows_Native>>);
        AddPass("move_native" + end + "/limit", count, &MoveFlat<&MoveRows_Native>);
        AddPass("move_native" + end + "/structs", count, &MoveStructs);
        AddPass("for_each" + end + "/ours", count, &MoveAndAge);
        AddPass("for_each" + end + "/limit", count, &ByPages<&MoveAndAgePage>);
    }
    AddPass("view_dense/ours", 10000, &ByViews<&AgeDenseView>);
    AddPass("view_dense/limit", 10000, &ByPages<&AgePage>);
    AddPass("view_strided/ours", 10000, &ByViews<&AgeStridedView>);
    AddPass("view_strided/limit", 10000, &ByPages<&AgeStridedPage>);
    Add<SRemoveOver>("remove_if/ours", kParticleCount, kParticleCount, &RemoveOver);
    Add<SRemoveOver>("remove_if/limit", kParticleCount, kParticleCount, &RemoveOverPlainly);
    AddPass("pages_on_threads/ours", kParticleCount, &NormaliseOnThreads<2>)->Iterations(4)->UseRealTime();
    AddPass("pages_on_threads/limit", kParticleCount, &NormaliseOnThreads<1>)->Iterations(4)->UseRealTime();
    for (const u32 rowCount : {kParticleCount, kPageSize})
    {
        AddConversion("float_int", BaseType_Float, BaseType_I32, rowCount);
        AddConversion("int_float", BaseType_I32, BaseType_Float, rowCount);
        AddConversion("float3_float4", BaseType_Float3, BaseType_Float4, rowCount);
        AddConversion("float3_int3", BaseType_Float3, BaseType_Int3, rowCount);
    }
    return true;
}();

} // namespace
