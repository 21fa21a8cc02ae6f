#pragma once
// A picture with text and shapes. Lengths and sizes are in units; a unit is a number of pixels.

#include "image.h"
#include "palette.h"

struct _cairo;

namespace Wind
{
constexpr SColor kBackgroundColor = {0.0030f, 0.0040f, 0.0085f};
constexpr SColor kTextColor = {0.60f, 0.64f, 0.70f};

class CSheet : CNonCopyable
{
public:
    CSheet(u32 width, u32 height, double unit); // all three in pixels
    ~CSheet();

    void Fill(double x, double y, double width, double height, const SColor &color);
    // Fills a rectangle with a gradient, from color(0) at its left end to color(1) at its right end.
    template <typename _Color>
    void FillScale(double x, double y, double width, double height, const _Color &color)
    {
        constexpr u32 kSteps = 128;
        for (u32 i = 0; i < kSteps; ++i)
            Fill(x + width * i / kSteps, y, width / kSteps, height, color((float(i) + 0.5f) / kSteps));
    }
    void DashedLine(double x, double y, double width, const SColor &color);
    double TextWidth(const std::string &text, double size);
    // anchor is the part of the text that is at x: 0 its left end, 1 its right end.
    void Write(double x, double y, double anchor, const std::string &text, double size);

    SImage Image() const;

private:
    _cairo *m_Cairo;
};

std::string WithSeparators(u64 number); // 12,345
} // namespace Wind
