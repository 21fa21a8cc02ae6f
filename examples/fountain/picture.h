// A grey picture that adds up light, and its PNG file.
#pragma once

#include <algorithm>
#include <filesystem>
#include <vector>
#ifdef FOUNTAIN_HAS_PNG
#    include <png.h>
#endif

struct SPicture
{
    static constexpr int kWidth = 320, kHeight = 240;
    std::vector<unsigned char> m_Pixels = std::vector<unsigned char>(kWidth * kHeight);

    // Makes the pixel at (x, y) brighter. The picture shows x from -4 to 4 and y from 0 to 6.
    void Light(float x, float y)
    {
        const int column = int((x + 4.0f) / 8.0f * kWidth), row = int((1.0f - y / 6.0f) * (kHeight - 1));
        if (column < 0 || column >= kWidth || row < 0 || row >= kHeight)
            return;
        unsigned char &pixel = m_Pixels[size_t(row * kWidth + column)];
        pixel = static_cast<unsigned char>(std::min(255, pixel + 80));
    }
    // False if the file cannot be written. Built without libpng it writes nothing and returns true.
    bool Write(const std::filesystem::path &path) const
    {
        std::error_code error;
        std::filesystem::create_directories(path.parent_path(), error);
#ifdef FOUNTAIN_HAS_PNG
        png_image image = {};
        image.version = PNG_IMAGE_VERSION;
        image.width = kWidth;
        image.height = kHeight;
        image.format = PNG_FORMAT_GRAY;
        return png_image_write_to_file(&image, path.c_str(), 0, m_Pixels.data(), 0, nullptr) != 0;
#else
        return true;
#endif
    }
};
