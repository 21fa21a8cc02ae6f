#include "image.h"

#include "output_file.h"

#include <png.h>

#include <algorithm>
#include <cmath>

namespace Wind
{
namespace
{
// libpng reports an error by a long jump to this frame, so the frame owns nothing that needs a destructor.
bool EncodePng(std::FILE *file, const SImage &image)
{
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (info == nullptr || setjmp(png_jmpbuf(png)) != 0)
        return png_destroy_write_struct(&png, &info), false;
    png_init_io(png, file);
    png_set_IHDR(png, info, image.m_Width, image.m_Height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
    png_write_info(png, info);
    for (u32 y = 0; y < image.m_Height; ++y)
        png_write_row(png, image.Row(y));
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}
} // namespace

u8 ScreenByte(float linear)
{
    const float bounded = std::clamp(linear, 0.0f, 1.0f);
    const float encoded = bounded <= 0.0031308f ? 12.92f * bounded : 1.055f * std::pow(bounded, 1.0f / 2.4f) - 0.055f;
    return u8(encoded * 255.0f + 0.5f);
}

bool WritePng(const std::string &path, const SImage &image, std::string &outError)
{
    COutputFile file(path);
    if (file.Handle() == nullptr || !EncodePng(file.Handle(), image))
        return outError = path + " cannot be written", false;
    return file.Commit(outError);
}
} // namespace Wind
