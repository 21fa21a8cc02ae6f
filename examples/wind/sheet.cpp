#include "sheet.h"

#include <cairo.h>
#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <new>

namespace Wind
{
namespace
{
void Use(cairo_t *cairo, const SColor &color)
{
    const auto channel = [](float linear) { return double(ScreenByte(linear)) / 255.0; };
    cairo_set_source_rgb(cairo, channel(color.m_Red), channel(color.m_Green), channel(color.m_Blue));
}

// Frees the fonts at the program's end.
struct SFonts
{
    ~SFonts()
    {
        cairo_debug_reset_static_data();
        FcFini();
    }
};
} // namespace

CSheet::CSheet(u32 width, u32 height, double unit)
{
    static const SFonts fonts;
    cairo_surface_t *surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, int(width), int(height));
    m_Cairo = cairo_create(surface);
    cairo_surface_destroy(surface); // the context holds a reference
    if (cairo_status(m_Cairo) != CAIRO_STATUS_SUCCESS)
    {
        cairo_destroy(m_Cairo);
        throw std::bad_alloc();
    }
    Use(m_Cairo, kBackgroundColor);
    cairo_paint(m_Cairo);
    cairo_scale(m_Cairo, unit, unit);
    cairo_set_antialias(m_Cairo, CAIRO_ANTIALIAS_NONE); // of shapes; text is always antialiased
    cairo_select_font_face(m_Cairo, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
}

CSheet::~CSheet() { cairo_destroy(m_Cairo); }

void CSheet::Fill(double x, double y, double width, double height, const SColor &color)
{
    Use(m_Cairo, color);
    cairo_rectangle(m_Cairo, x, y, width, height);
    cairo_fill(m_Cairo);
}

void CSheet::DashedLine(double x, double y, double width, const SColor &color)
{
    constexpr double kDashes[] = {6.0, 4.0};
    Use(m_Cairo, color);
    cairo_set_line_width(m_Cairo, 1.5);
    cairo_set_dash(m_Cairo, kDashes, 2, 0.0);
    cairo_move_to(m_Cairo, x, y);
    cairo_rel_line_to(m_Cairo, width, 0.0);
    cairo_stroke(m_Cairo);
}

double CSheet::TextWidth(const std::string &text, double size)
{
    cairo_text_extents_t extents;
    cairo_set_font_size(m_Cairo, size);
    cairo_text_extents(m_Cairo, text.c_str(), &extents);
    return extents.x_advance;
}

void CSheet::Write(double x, double y, double anchor, const std::string &text, double size)
{
    const double left = x - anchor * TextWidth(text, size);
    Use(m_Cairo, kTextColor);
    cairo_move_to(m_Cairo, left, y);
    cairo_show_text(m_Cairo, text.c_str());
    cairo_new_path(m_Cairo);
}

SImage CSheet::Image() const
{
    cairo_surface_t *surface = cairo_get_target(m_Cairo);
    cairo_surface_flush(surface);
    SImage image(u32(cairo_image_surface_get_width(surface)), u32(cairo_image_surface_get_height(surface)));
    const u8 *bytes = cairo_image_surface_get_data(surface);
    u8 *out = image.m_Bytes.data();
    for (u32 y = 0; y < image.m_Height; ++y, bytes += cairo_image_surface_get_stride(surface))
    {
        const u32 *row = reinterpret_cast<const u32 *>(bytes); // 0xRRGGBB
        for (u32 x = 0; x < image.m_Width; ++x)
        {
            *out++ = u8(row[x] >> 16);
            *out++ = u8(row[x] >> 8);
            *out++ = u8(row[x]);
        }
    }
    return image;
}

std::string WithSeparators(u64 number)
{
    std::string text = std::to_string(number);
    for (size_t end = text.size(); end > 3; end -= 3)
        text.insert(end - 3, ",");
    return text;
}
} // namespace Wind
