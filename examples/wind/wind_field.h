#pragma once
// A forecast of the wind near the ground on a regular grid around the globe, rows from north to south.

#include <tz_defs.h>

#include <string>
#include <vector>

namespace Wind
{
using namespace Tessaly;

struct SWind
{
    float m_East, m_North; // metres per second
};

struct SGrid
{
    u32 m_Columns = 0, m_Rows = 0;
    double m_West = 0.0, m_North = 0.0; // degrees: the first column, the first row
    double m_StepEast = 0.0, m_StepSouth = 0.0;
};

class CWindField
{
public:
    // Reads the u and v component from a file in the JSON form of the common GRIB converters.
    // False: outError is the error in one line, with the file's name, and the field is unchanged.
    bool Load(const std::string &path, std::string &outError);

    // The wind at a place in degrees: bilinear interpolation, wrapped in longitude, clamped in latitude.
    SWind Sample(float longitude, float latitude) const;

    const SGrid &Grid() const { return m_Grid; }
    // The time of the forecast, such as "2017-10-20 20:00 UTC"; empty if the file has none.
    const std::string &Time() const { return m_Time; }

private:
    SGrid m_Grid;
    std::vector<SWind> m_Winds; // row by row
    std::string m_Time;
};
} // namespace Wind
