#pragma once
// An image of 8 bits per channel: red, green, blue, row by row from the top.

#include <tz_defs.h>

#include <string>
#include <vector>

namespace Wind
{
using namespace Tessaly;

struct SImage
{
    SImage(u32 width, u32 height)
        : m_Width(width)
        , m_Height(height)
        , m_Bytes(size_t(width) * height * 3)
    {
    }

    u8 *Pixel(u32 x, u32 y) { return &m_Bytes[(size_t(y) * m_Width + x) * 3]; }
    const u8 *Row(u32 y) const { return &m_Bytes[size_t(y) * m_Width * 3]; }

    u32 m_Width, m_Height;
    std::vector<u8> m_Bytes;
};

// Converts a linear intensity from 0 to 1 to an sRGB byte.
u8 ScreenByte(float linear);

// Writes the image as PNG. False: outError names the file, and nothing was written.
bool WritePng(const std::string &path, const SImage &image, std::string &outError);
} // namespace Wind
