// The frames as a picture: time over frames on a logarithmic scale, above the frames themselves, below the render
// thread's waits.
#include <cmath>

#include <cairo.h>

#include "frames.h"

namespace Bench
{

namespace
{

constexpr double kWidth = 1200.0, kHeight = 860.0;
constexpr double kLeft = 80.0, kRight = 1180.0;
constexpr double kLeastMicroseconds = 1.0, kMostMicroseconds = 1e6;

struct SColor
{
    double m_Red, m_Green, m_Blue;
};
constexpr SColor kBlack = {0.13, 0.13, 0.13}, kGrid = {0.87, 0.87, 0.87};
constexpr SColor kSides[] = {{0.0, 0.42, 0.64}, {0.84, 0.37, 0.0}, {0.35, 0.65, 0.3}}; // as the sides are listed

void SetColor(cairo_t *cairo, const SColor &color)
{
    cairo_set_source_rgb(cairo, color.m_Red, color.m_Green, color.m_Blue);
}

// How much of a text stands before its place.
constexpr double kAlignLeft = 0.0, kAlignCenter = 0.5, kAlignRight = 1.0;

void Write(cairo_t *cairo, const std::string &text, double x, double y, double partBefore)
{
    cairo_text_extents_t extents;
    cairo_text_extents(cairo, text.c_str(), &extents);
    cairo_move_to(cairo, x - extents.x_advance * partBefore, y);
    cairo_show_text(cairo, text.c_str());
}

std::string TimeName(double microseconds)
{
    const char *const unit = microseconds < 1e3 ? " us" : microseconds < 1e6 ? " ms" : " s";
    const double divisor = microseconds < 1e3 ? 1.0 : microseconds < 1e6 ? 1e3 : 1e6;
    return std::to_string(int(microseconds / divisor)) + unit;
}

// Axes from top to bottom, and a dot for each frame's figure.
class CPanel
{
public:
    CPanel(cairo_t *cairo, double top, double bottom, size_t frameCount)
        : m_Cairo(cairo)
        , m_Top(top)
        , m_Bottom(bottom)
        , m_FrameCount(frameCount)
    {
    }

    void DrawAxes(const char *title) const
    {
        cairo_set_line_width(m_Cairo, 1.0);
        for (double time = kLeastMicroseconds; time <= kMostMicroseconds; time *= 10.0)
        {
            _Line(kLeft, _Y(time), kRight, _Y(time));
            Write(m_Cairo, TimeName(time), kLeft - 8.0, _Y(time) + 5.0, kAlignRight);
        }
        for (size_t frame = 0; frame <= m_FrameCount; frame += 200)
        {
            _Line(_X(frame), m_Top, _X(frame), m_Bottom);
            Write(m_Cairo, std::to_string(frame), _X(frame), m_Bottom + 18.0, kAlignCenter);
        }
        Write(m_Cairo, "frame", kRight, m_Bottom + 36.0, kAlignRight);
        Write(m_Cairo, title, kLeft, m_Top - 10.0, kAlignLeft);
    }
    void DrawDot(size_t frame, double nanoseconds) const
    {
        const double microseconds = nanoseconds * 1e-3;
        if (microseconds >= kLeastMicroseconds && microseconds <= kMostMicroseconds)
            cairo_rectangle(m_Cairo, _X(frame) - 1.0, _Y(microseconds) - 1.0, 2.0, 2.0);
    }

private:
    double _X(size_t frame) const { return kLeft + (kRight - kLeft) * double(frame) / double(m_FrameCount); }
    double _Y(double microseconds) const
    {
        const double part =
            std::log(microseconds / kLeastMicroseconds) / std::log(kMostMicroseconds / kLeastMicroseconds);
        return m_Bottom - (m_Bottom - m_Top) * part;
    }
    void _Line(double x0, double y0, double x1, double y1) const
    {
        SetColor(m_Cairo, kGrid);
        cairo_move_to(m_Cairo, x0, y0);
        cairo_line_to(m_Cairo, x1, y1);
        cairo_stroke(m_Cairo);
        SetColor(m_Cairo, kBlack);
    }

    cairo_t *m_Cairo;
    double m_Top, m_Bottom;
    size_t m_FrameCount;
};

void DrawLegend(cairo_t *cairo, const std::vector<SFrameSide> &sides)
{
    double x = kRight;
    for (size_t i = sides.size(); i-- > 0;)
    {
        SetColor(cairo, kBlack);
        cairo_text_extents_t extents;
        cairo_text_extents(cairo, sides[i].m_Name.c_str(), &extents);
        Write(cairo, sides[i].m_Name, x, 30.0, kAlignRight);
        SetColor(cairo, kSides[i]);
        cairo_rectangle(cairo, x - extents.x_advance - 18.0, 20.0, 10.0, 10.0);
        cairo_fill(cairo);
        x -= extents.x_advance + 44.0;
    }
}

void Draw(cairo_t *cairo, const std::vector<SFrameSide> &sides)
{
    const size_t frameCount = sides.front().m_Frames.size();
    const CPanel frames(cairo, 60.0, 500.0, frameCount), waits(cairo, 580.0, 800.0, frameCount);
    cairo_set_source_rgb(cairo, 1.0, 1.0, 1.0);
    cairo_paint(cairo);
    cairo_select_font_face(cairo, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cairo, 14.0);
    frames.DrawAxes("processor time of a frame: nothing, a million particles at frame 1000, nothing");
    waits.DrawAxes("the render thread's wait for the lock, which it takes for 2 ms of every 8");
    DrawLegend(cairo, sides);
    for (size_t i = sides.size(); i-- > 0;) // ours on top
    {
        SetColor(cairo, kSides[i]);
        for (size_t frame = 0; frame < frameCount; ++frame)
        {
            frames.DrawDot(frame, sides[i].m_Frames[frame].Sum());
            waits.DrawDot(frame, sides[i].m_Frames[frame].m_RenderWait);
        }
        cairo_fill(cairo);
    }
}

} // namespace

bool DrawFrames(const std::string &path, const std::vector<SFrameSide> &sides)
{
    cairo_surface_t *surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, int(kWidth), int(kHeight));
    cairo_t *cairo = cairo_create(surface);
    Draw(cairo, sides);
    cairo_destroy(cairo);
    const bool isWritten = cairo_surface_write_to_png(surface, path.c_str()) == CAIRO_STATUS_SUCCESS;
    cairo_surface_destroy(surface);
    return isWritten;
}

} // namespace Bench
