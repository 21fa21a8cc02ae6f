#pragma once
// A picture with text and shapes. Lengths are in units: as many pixels as the sheet was told.

#include "image.h"
#include "palette.h"

struct _cairo;

namespace Wind
{
constexpr SColor kPaper = {0.0030f, 0.0040f, 0.0085f};
constexpr SColor kInk = {0.60f, 0.64f, 0.70f};

class CSheet : CNonCopyable
{
public:
    CSheet(u32 width, u32 height, double unit); // width and height in pixels
    ~CSheet();

    void Fill(double x, double y, double width, double height, const SColor &color);
    // A rectangle across which the color changes: color(0) at its left end, color(1) at its right one.
    template <typename _Color>
    void FillScale(double x, double y, double width, double height, const _Color &color)
    {
        constexpr u32 kSteps = 128;
        for (u32 i = 0; i < kSteps; ++i)
            Fill(x + width * i / kSteps, y, width / kSteps, height, color((float(i) + 0.5f) / kSteps));
    }
    void DashedLine(double x, double y, double width, const SColor &color);
    double TextWidth(const std::string &text, double size);
    // anchor tells which part of the text stands at x: 0 its left end, 1 its right end.
    void Write(double x, double y, double anchor, const std::string &text, double size);

    SImage Image() const;

private:
    _cairo *m_Cairo;
};

std::string WithSeparators(u64 number); // 12,345
} // namespace Wind
