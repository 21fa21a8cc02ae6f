// Draws docs/memory.svg: bytes per particle by page size, measured on real streams of three sizes. The bytes of a page
// are its block, its page object, its table of fields and its raw page object.
//   memory_chart docs     writes memory.svg and its figures, memory.csv, to the folder docs
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>
#include <tz_particles/include/ps_runtime.h>

#include <CLI/CLI.hpp>
#include <cairo-svg.h>
#include <fontconfig/fontconfig.h>

#include <cmath>
#include <cstdio>
#include <vector>

using namespace Tessaly;

namespace
{

constexpr double kLeft = 60, kTop = 30, kWidth = 560, kHeight = 260, kMaxBytes = 160; // the plot, and its largest value
constexpr u32 kFirstLog2 = 4, kLastLog2 = 14;                                         // page sizes 16 to 16384

struct SColour
{
    double m_Red, m_Green, m_Blue;
};
constexpr SColour kGridColour = {0.87, 0.87, 0.87}, kTextColour = {0.1, 0.1, 0.1};

struct SCurve
{
    u32 m_ParticleCount;
    const char *m_Label;
    SColour m_Colour;
};
constexpr SCurve kCurves[] = {{100, "100 particles", {0.75, 0.22, 0.17}},
                              {1000, "1,000 particles", {0.84, 0.54, 0.06}},
                              {100000, "100,000 particles", {0.14, 0.44, 0.64}}};

// Bytes per particle on each curve, at one page size. There are four page sizes per doubling.
struct SPoint
{
    double m_Log2;
    u32 m_PageSize;
    double m_Bytes[std::size(kCurves)];
};

double BytesPerParticle(const SParticleStreamDef &def, u32 pageSize, u32 particleCount)
{
    CParticleStream_MainMemory stream(pageSize);
    stream.BindStreamDef(&def);
    TArray<CParticlePageView> views;
    stream.AllocateParticles(particleCount, views);
    return double(stream.ComputeMemoryUsage().m_ParticleBytes) / double(particleCount);
}

std::vector<SPoint> Measure()
{
    SParticleStreamDef def;
    def.Add(CStringId("position"), BaseType_Float3);
    def.Add(CStringId("velocity"), BaseType_Float3);
    def.Add(CStringId("colour"), BaseType_Float4);
    def.Add(CStringId("age"), BaseType_Float);
    def.Add(CStringId("size"), BaseType_Float);
    std::vector<SPoint> points;
    for (u32 i = 0; i <= 4 * (kLastLog2 - kFirstLog2); ++i)
    {
        const double log2 = kFirstLog2 + i / 4.0;
        SPoint point = {log2, u32(std::lround(std::exp2(log2))), {}};
        for (size_t curve = 0; curve < std::size(kCurves); ++curve)
            point.m_Bytes[curve] = BytesPerParticle(def, point.m_PageSize, kCurves[curve].m_ParticleCount);
        points.push_back(point);
    }
    return points;
}

double X(double log2) { return kLeft + (log2 - kFirstLog2) * kWidth / (kLastLog2 - kFirstLog2); }
double Y(double bytes) { return kTop + kHeight * (1.0 - bytes / kMaxBytes); }

void Use(cairo_t *cairo, const SColour &colour)
{
    cairo_set_source_rgb(cairo, colour.m_Red, colour.m_Green, colour.m_Blue);
}

// anchor is the part of the text that is at x: 0 its left end, 1 its right end.
void DrawText(cairo_t *cairo, double x, double y, double anchor, const std::string &text)
{
    cairo_text_extents_t extents;
    cairo_text_extents(cairo, text.c_str(), &extents);
    cairo_move_to(cairo, x - anchor * extents.x_advance, y);
    cairo_show_text(cairo, text.c_str());
}

void DrawAxes(cairo_t *cairo)
{
    cairo_set_line_width(cairo, 1);
    for (u32 bytes = 0; bytes <= u32(kMaxBytes); bytes += 20)
    {
        Use(cairo, kGridColour);
        cairo_move_to(cairo, kLeft, Y(bytes));
        cairo_rel_line_to(cairo, kWidth, 0);
        cairo_stroke(cairo);
        Use(cairo, kTextColour);
        DrawText(cairo, kLeft - 8, Y(bytes) + 4, 1, std::to_string(bytes));
    }
    for (u32 log2 = kFirstLog2; log2 <= kLastLog2; ++log2)
        DrawText(cairo, X(log2), kTop + kHeight + 18, 0.5, std::to_string(1u << log2));
    DrawText(cairo, kLeft, kTop - 12, 0, "bytes per particle, of which 48 are its values");
    DrawText(cairo, kLeft + kWidth, kTop + kHeight + 36, 1, "particles a page");
}

// Ends at the first point above the plot.
void DrawCurve(cairo_t *cairo, const std::vector<SPoint> &points, size_t curve)
{
    Use(cairo, kCurves[curve].m_Colour);
    cairo_set_line_width(cairo, 2);
    cairo_new_path(cairo); // drawing a text leaves a current point
    for (const SPoint &point : points)
    {
        if (point.m_Bytes[curve] > kMaxBytes)
            break;
        cairo_line_to(cairo, X(point.m_Log2), Y(point.m_Bytes[curve]));
    }
    cairo_stroke(cairo);
    const double top = kTop + 20.0 * double(curve);
    cairo_rectangle(cairo, kLeft + 420, top, 12, 12);
    cairo_fill(cairo);
    Use(cairo, kTextColour);
    DrawText(cairo, kLeft + 440, top + 11, 0, kCurves[curve].m_Label);
}

bool WriteDrawing(const std::string &path, const std::vector<SPoint> &points)
{
    cairo_surface_t *surface = cairo_svg_surface_create(path.c_str(), kLeft + kWidth + 30, kTop + kHeight + 50);
    cairo_svg_surface_set_document_unit(surface, CAIRO_SVG_UNIT_PX);
    cairo_t *cairo = cairo_create(surface);
    cairo_set_source_rgb(cairo, 1, 1, 1);
    cairo_paint(cairo);
    cairo_set_font_size(cairo, 12);
    DrawAxes(cairo);
    for (size_t curve = 0; curve < std::size(kCurves); ++curve)
        DrawCurve(cairo, points, curve);
    cairo_destroy(cairo);
    cairo_surface_finish(surface);
    const bool isWritten = cairo_surface_status(surface) == CAIRO_STATUS_SUCCESS;
    cairo_surface_destroy(surface);
    cairo_debug_reset_static_data(); // frees the fonts
    FcFini();
    return isWritten;
}

bool WriteFigures(const std::string &path, const std::vector<SPoint> &points)
{
    std::FILE *file = std::fopen(path.c_str(), "w");
    if (file == null)
        return false;
    std::fputs("particles a page", file);
    for (const SCurve &curve : kCurves)
        std::fprintf(file, ";%s", curve.m_Label);
    for (const SPoint &point : points)
    {
        std::fprintf(file, "\n%u", point.m_PageSize);
        for (const double bytes : point.m_Bytes)
            std::fprintf(file, ";%.1f", bytes);
    }
    std::fputc('\n', file);
    const bool isWritten = std::fflush(file) == 0;
    return std::fclose(file) == 0 && isWritten;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app("Draws the bytes per particle by page size: memory.svg, and its figures in memory.csv.",
                 "memory_chart");
    std::string folder;
    app.add_option("FOLDER", folder, "folder of the two files")
        ->required()
        ->check(CLI::ExistingDirectory)
        ->type_name("");
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::CallForHelp &)
    {
        return std::fputs(app.help().c_str(), stdout) >= 0 && std::fflush(stdout) == 0 ? 0 : 1;
    }
    catch (const CLI::ParseError &error)
    {
        std::fprintf(stderr, "memory_chart: %s\n", error.what());
        return 2;
    }
    if (!Particles::Startup())
        return 1;
    const std::vector<SPoint> points = Measure();
    Particles::Shutdown();
    for (const auto &[name, write] : {std::pair("/memory.svg", &WriteDrawing), std::pair("/memory.csv", &WriteFigures)})
    {
        if (write(folder + name, points))
            continue;
        std::fprintf(stderr, "memory_chart: %s%s cannot be written\n", folder.c_str(), name);
        return 1;
    }
    return 0;
}
