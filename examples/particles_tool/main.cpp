// Lists the contents of a snapshot and converts it to CSV, PLY and PNG.
#include "writers.h"

#include <CLI/CLI.hpp>
#include <tz_particles/include/ps_runtime.h>
#include <tz_snapshot/include/sn_snapshot.h>

#include <algorithm>
#include <cstdio>

namespace ParticlesTool
{
namespace
{
struct SOptions
{
    std::string m_File, m_Csv, m_Ply, m_Png;
    std::string m_Place = "position", m_X, m_Y;
    std::pair<u32, u32> m_Size = {800, 800};
};

int Fail(int status, const std::string &problem)
{
    std::fprintf(stderr, "particles: %s\n", problem.c_str());
    return status;
}

int OnReport(const Assert::SReport &report, void *)
{
    std::fprintf(stderr, "particles: %s\n", report.m_Message);
    return Assert::Result_Continue;
}

void PrintField(const Snapshot::SLoadedDefinition &definition, u32 field, u32 nameWidth)
{
    const SParticleStreamFieldDef &def = definition.Def()->m_StreamDef[field];
    const CBaseTypeTraits &traits = CBaseTypeTraits::Traits(def.m_Type);
    std::printf("%-*s  %08X  %-10s  ", int(nameWidth), FieldName(*definition.Def(), field).c_str(), def.m_NameGUID.m_Id,
                traits.Name);
    if (def.m_StorageSize != 0)
        return void(std::printf("%u bytes", def.m_StorageSize));
    std::printf("constant");
    const S64Bytes &block = definition.ConstantData()[definition.ConstantDataFieldSlot()[field]];
    for (u32 i = 0; i < traits.VectorDimension; ++i)
    {
        const u8 *value = reinterpret_cast<const u8 *>(&block) + traits.Size / traits.VectorDimension * i;
        std::printf(" %.9g", ToNumber(value, traits.ScalarType));
    }
}

void PrintList(const CParticleStream_MainMemory &stream, const Snapshot::SLoadedDefinition &definition,
               const std::vector<SColumn> &columns)
{
    std::printf("%u particles, %u a page, %u fields\n", stream.ParticleCount(), stream.PageSize(),
                stream.StreamsCount());
    const std::vector<SRange> ranges = FindRanges(stream, columns);
    size_t nameWidth = 0;
    for (u32 i = 0; i < stream.StreamsCount(); ++i)
        nameWidth = std::max(nameWidth, FieldName(*definition.Def(), i).size());
    for (u32 i = 0; i < stream.StreamsCount(); ++i)
    {
        PrintField(definition, i, u32(nameWidth));
        for (size_t c = 0; c < columns.size(); ++c)
        {
            if (columns[c].m_Field == i && ranges[c].m_Min <= ranges[c].m_Max)
                std::printf("  [%.9g, %.9g]", ranges[c].m_Min, ranges[c].m_Max);
        }
        std::printf("\n");
    }
}

// Finds the column of that name, or the first component of the field of that name.
bool FindColumn(const std::vector<SColumn> &columns, const std::string &name, SColumn &outColumn)
{
    for (const SColumn &column : columns)
    {
        if (column.m_Name == name || column.m_Name == name + ".x")
            return outColumn = column, true;
    }
    return false;
}

// Moves the components of the field called name, three at most, to the start of columns. Returns how many.
u32 MovePositionToFront(std::vector<SColumn> &columns, const std::string &name)
{
    SColumn first;
    if (!FindColumn(columns, name, first))
        return 0;
    const auto begin = std::find_if(columns.begin(), columns.end(),
                                    [&](const SColumn &column) { return column.m_Field == first.m_Field; });
    const auto end =
        std::find_if(begin, columns.end(), [&](const SColumn &column) { return column.m_Field != first.m_Field; });
    const u32 count = u32(std::min<std::ptrdiff_t>(end - begin, 3));
    std::rotate(columns.begin(), begin, begin + count);
    return count;
}

int Convert(const SOptions &options, const CParticleStream_MainMemory &stream, std::vector<SColumn> columns)
{
    SColumn axes[2];
    if (!options.m_Png.empty())
    {
        for (const auto &[name, axis] : {std::pair(&options.m_X, &axes[0]), std::pair(&options.m_Y, &axes[1])})
        {
            if (!FindColumn(columns, *name, *axis))
                return Fail(2, "there is no component " + *name);
        }
        if (!WritePng(options.m_Png, stream, axes, options.m_Size.first, options.m_Size.second))
            return Fail(1, options.m_Png + " cannot be written");
    }
    if (!options.m_Csv.empty() && !WriteCsv(options.m_Csv, stream, columns))
        return Fail(1, options.m_Csv + " cannot be written");
    if (options.m_Ply.empty())
        return 0;
    const u32 positionCount = MovePositionToFront(columns, options.m_Place);
    if (positionCount == 0)
        return Fail(2, "there is no field " + options.m_Place + " for the positions; choose one with --place");
    return WritePly(options.m_Ply, stream, columns, positionCount) ? 0 : Fail(1, options.m_Ply + " cannot be written");
}

int Run(const SOptions &options)
{
    Snapshot::SLoadedDefinition definition;
    CParticleStream_MainMemory stream(0);
    if (!Snapshot::Load(options.m_File.c_str(), definition, stream))
        return 2; // a report has printed the reason
    const std::vector<SColumn> columns = FindColumns(*definition.Def());
    PrintList(stream, definition, columns);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        return Fail(1, "the output cannot be written");
    return Convert(options, stream, columns);
}
} // namespace
} // namespace ParticlesTool

int main(int argc, char **argv)
{
    using namespace ParticlesTool;
    SOptions options;
    CLI::App app("Lists the contents of a snapshot and converts it to CSV, PLY and PNG.", "particles");
    app.add_option("FILE", options.m_File, "the snapshot")->required();
    app.add_option("--csv", options.m_Csv, "write a CSV file")->type_name("FILE");
    CLI::Option *ply = app.add_option("--ply", options.m_Ply, "write a binary PLY file")->type_name("FILE");
    app.add_option("--place", options.m_Place, "the field with the positions of the points (position)")
        ->needs(ply)
        ->type_name("FIELD");
    CLI::Option *png = app.add_option("--png", options.m_Png, "draw two components")->type_name("FILE");
    CLI::Option *x =
        app.add_option("--x", options.m_X, "the component to the right, such as position.x")->type_name("COMPONENT");
    CLI::Option *y =
        app.add_option("--y", options.m_Y, "the component upwards, such as position.y")->type_name("COMPONENT");
    app.add_option("--size", options.m_Size, "size of the picture in pixels (800x800)")
        ->delimiter('x')
        ->check(CLI::Range(1, 16'384))
        ->type_name("WxH");
    png->needs(x)->needs(y);
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::CallForHelp &)
    {
        std::fputs(app.help().c_str(), stdout);
        return std::fflush(stdout) == 0 ? 0 : 1;
    }
    catch (const CLI::ParseError &error)
    {
        return Fail(2, error.what());
    }
    Assert::SetHandler(&OnReport, nullptr);
    if (!Particles::Startup())
        return Fail(1, "the particle runtime cannot be started");
    const int status = Run(options);
    Particles::Shutdown();
    return status;
}
