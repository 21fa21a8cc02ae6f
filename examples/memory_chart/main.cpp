// Draws docs/memory.svg: bytes per particle by page size, in streams of three sizes, as real streams and their pages
// take them. What a page takes is its block and its three records.
//   memory_chart >docs/memory.svg
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>
#include <tz_particles/include/ps_runtime.h>

#include <cmath>
#include <cstdio>

using namespace Tessaly;

namespace
{

constexpr u32 kLeft = 60, kTop = 30, kWidth = 560, kHeight = 260, kMaxBytes = 160; // the plot, and where it ends
constexpr u32 kFirstLog2 = 4, kLastLog2 = 14;                                      // page sizes 16 to 16384

struct SCurve
{
    u32 m_ParticleCount;
    const char *m_Label;
    const char *m_Colour;
};
constexpr SCurve kCurves[] = {
    {100, "100 particles", "#c0392b"}, {1000, "1,000 particles", "#d68910"}, {100000, "100,000 particles", "#2471a3"}};

double BytesPerParticle(const SParticleStreamDef &def, u32 pageSize, u32 particleCount)
{
    const CGuid noConstants[5];
    CParticleStream_MainMemory stream(pageSize);
    stream.BindStreamDef(&def, {}, {noConstants, 5}, {});
    TArray<CParticlePageView> views;
    stream.AllocateParticles(particleCount, views);
    return double(stream.ComputeMemoryUsage().m_ParticleBytes) / double(particleCount);
}

double X(double log2) { return kLeft + (log2 - kFirstLog2) * kWidth / (kLastLog2 - kFirstLog2); }
double Y(double bytes) { return kTop + kHeight * (1.0 - bytes / kMaxBytes); }

void DrawText(double x, double y, const char *anchor, const char *text)
{
    std::printf("<text x=\"%.0f\" y=\"%.0f\" text-anchor=\"%s\">%s</text>\n", x, y, anchor, text);
}

void DrawAxes()
{
    char label[40];
    for (u32 bytes = 0; bytes <= kMaxBytes; bytes += 20)
    {
        std::printf("<path d=\"M%u %.0fh%u\" stroke=\"#ddd\"/>\n", kLeft, Y(bytes), kWidth);
        std::snprintf(label, sizeof(label), "%u", bytes);
        DrawText(kLeft - 8, Y(bytes) + 4, "end", label);
    }
    for (u32 log2 = kFirstLog2; log2 <= kLastLog2; ++log2)
    {
        std::snprintf(label, sizeof(label), "%u", 1u << log2);
        DrawText(X(log2), kTop + kHeight + 18, "middle", label);
    }
    DrawText(kLeft, kTop - 12, "start", "bytes per particle, of which 48 are its values");
    DrawText(kLeft + kWidth, kTop + kHeight + 36, "end", "particles a page");
}

// A point for each quarter of a doubling; what leaves the plot is left out.
void DrawCurve(const SParticleStreamDef &def, const SCurve &curve, u32 row)
{
    std::printf("<path fill=\"none\" stroke-width=\"2\" stroke=\"%s\" d=\"", curve.m_Colour);
    char command = 'M';
    for (u32 i = 0; i <= 4 * (kLastLog2 - kFirstLog2); ++i)
    {
        const double log2 = kFirstLog2 + i / 4.0;
        const double bytes = BytesPerParticle(def, u32(std::lround(std::exp2(log2))), curve.m_ParticleCount);
        if (bytes > kMaxBytes)
            break;
        std::printf("%c%.0f %.0f", command, X(log2), Y(bytes));
        command = 'L';
    }
    std::printf("\"/>\n<rect x=\"%u\" y=\"%u\" width=\"12\" height=\"12\" fill=\"%s\"/>\n", kLeft + 420,
                kTop + 20 * row, curve.m_Colour);
    DrawText(kLeft + 440, kTop + 20 * row + 11, "start", curve.m_Label);
}

} // namespace

int main()
{
    if (!Particles::Startup())
        return 1;
    SParticleStreamDef def;
    for (u32 name = 1; name <= 2; ++name)
        def.m_StreamDef.PushBack(SParticleStreamFieldDef(CStringId(name), BaseType_Float3, 12));
    def.m_StreamDef.PushBack(SParticleStreamFieldDef(CStringId(3), BaseType_Float4, 16));
    for (u32 name = 4; name <= 5; ++name)
        def.m_StreamDef.PushBack(SParticleStreamFieldDef(CStringId(name), BaseType_Float, 4));

    std::printf("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %u %u\" font-family=\"sans-serif\" "
                "font-size=\"12\">\n<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n",
                kLeft + kWidth + 30, kTop + kHeight + 50);
    DrawAxes();
    for (u32 i = 0; i < 3; ++i)
        DrawCurve(def, kCurves[i], i);
    std::printf("</svg>\n");
    Particles::Shutdown();
    return 0;
}
