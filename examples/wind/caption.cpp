#include "caption.h"

#include "sheet.h"

namespace Wind
{
namespace
{
constexpr double kWidth = 1440.0, kHeight = 48.0, kMargin = 24.0; // in units
constexpr double kScaleWidth = 420.0, kScaleHeight = 12.0, kTextSize = 14.0;
constexpr u32 kTickSpeed = 5; // metres per second between two ticks
} // namespace

void AddCaption(SImage &map, const CPalette &palette, const std::string &forecast)
{
    const double unit = double(map.m_Width) / kWidth;
    CSheet sheet(map.m_Width, u32(kHeight * unit) + 1, unit);
    sheet.FillScale(kMargin, 10.0, kScaleWidth, kScaleHeight,
                    [&](float part) { return palette.ColorOfSpeed(part * CPalette::kFastestSpeed); });
    for (u32 speed = 0; speed <= u32(CPalette::kFastestSpeed); speed += kTickSpeed)
    {
        const double x = kMargin + kScaleWidth * speed / double(CPalette::kFastestSpeed);
        sheet.Fill(x - 0.5, 10.0 + kScaleHeight, 1.0, 3.0, kTextColor);
        sheet.Write(x, 39.0, 0.5, std::to_string(speed), kTextSize);
    }
    sheet.Write(kMargin + kScaleWidth + 16.0, 39.0, 0.0, "m/s and more", kTextSize);
    sheet.Write(kWidth - kMargin, 29.0, 1.0, forecast, kTextSize);

    const SImage caption = sheet.Image();
    map.m_Bytes.insert(map.m_Bytes.end(), caption.m_Bytes.begin(), caption.m_Bytes.end());
    map.m_Height += caption.m_Height;
}
} // namespace Wind
