#include "wind_field.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <fstream>
#include <sstream>

namespace Wind
{
namespace
{
using Json = nlohmann::json;

constexpr int kMomentumCategory = 2;
constexpr int kEastwardNumber = 2;
constexpr int kNorthwardNumber = 3;
constexpr double kFastestWind = 500.0; // metres per second; larger values mean a broken file

// A component of the wind, as read from the file, or the error.
struct SComponent
{
    SGrid m_Grid;
    std::vector<float> m_Values;
    std::string m_Time;
    std::string m_Error;
};

bool ReadFile(const std::string &path, std::string &outText, std::string &outError)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!file)
        return outError = "cannot be opened", false;
    if (!(text << file.rdbuf()))
        return outError = "cannot be read or is empty", false;
    outText = text.str();
    return true;
}

bool ParseJson(const std::string &text, Json &outJson, std::string &outError)
{
    try
    {
        outJson = Json::parse(text);
    }
    catch (const Json::exception &)
    {
        return outError = "is not JSON", false;
    }
    return true;
}

bool NumberIs(const Json &header, const char *name, int value)
{
    const auto found = header.find(name);
    return found != header.end() && found->is_number() && found->get<double>() == value;
}

// The header of a record, or null.
const Json *HeaderOf(const Json &record)
{
    if (!record.is_object())
        return nullptr;
    const auto found = record.find("header");
    return found != record.end() && found->is_object() ? &*found : nullptr;
}

const Json *FindRecord(const Json &records, int parameterNumber)
{
    if (!records.is_array())
        return nullptr;
    for (const Json &record : records)
    {
        const Json *header = HeaderOf(record);
        if (header != nullptr && NumberIs(*header, "parameterCategory", kMomentumCategory) &&
            NumberIs(*header, "parameterNumber", parameterNumber))
            return &record;
    }
    return nullptr;
}

bool ReadHeaderNumber(const Json &header, const char *name, double &outNumber, std::string &outError)
{
    const auto found = header.find(name);
    if (found == header.end() || !found->is_number())
        return outError = std::string("has a header without ") + name, false;
    outNumber = found->get<double>();
    return true;
}

bool GoesAroundTheGlobe(double columns, double rows, const SGrid &grid)
{
    const bool wholeNumbers = columns >= 2 && columns <= 1e5 && std::floor(columns) == columns && rows >= 2 &&
                              rows <= 1e5 && std::floor(rows) == rows;
    const double south = grid.m_North - (rows - 1) * grid.m_StepSouth;
    return wholeNumbers && grid.m_StepEast > 0 && grid.m_StepSouth > 0 && std::abs(grid.m_West) <= 360.0 &&
           std::abs(columns * grid.m_StepEast - 360.0) < 1e-3 && grid.m_North <= 90.001 && south >= -90.001;
}

bool ReadGrid(const Json &header, SGrid &outGrid, std::string &outError)
{
    double columns = 0, rows = 0;
    const bool read = ReadHeaderNumber(header, "nx", columns, outError) &&
                      ReadHeaderNumber(header, "ny", rows, outError) &&
                      ReadHeaderNumber(header, "dx", outGrid.m_StepEast, outError) &&
                      ReadHeaderNumber(header, "dy", outGrid.m_StepSouth, outError) &&
                      ReadHeaderNumber(header, "lo1", outGrid.m_West, outError) &&
                      ReadHeaderNumber(header, "la1", outGrid.m_North, outError);
    if (!read)
        return false;
    if (!GoesAroundTheGlobe(columns, rows, outGrid))
        return outError = "has a header whose grid does not go around the globe from north to south", false;
    outGrid.m_Columns = u32(columns);
    outGrid.m_Rows = u32(rows);
    return true;
}

bool ReadValues(const Json &record, const SGrid &grid, std::vector<float> &outValues, std::string &outError)
{
    const auto data = record.find("data");
    const size_t wanted = size_t(grid.m_Columns) * grid.m_Rows;
    if (data == record.end() || !data->is_array())
        return outError = "has no data", false;
    if (data->size() != wanted)
    {
        outError = "holds " + std::to_string(data->size()) + " values where its header says " + std::to_string(wanted);
        return false;
    }
    outValues.reserve(wanted);
    for (const Json &value : *data)
    {
        if (!value.is_number() || !(std::abs(value.get<double>()) <= kFastestWind))
            return outError = "holds a value that is no wind speed", false;
        outValues.push_back(value.get<float>());
    }
    return true;
}

// "2017-10-20T20:00:00.000Z" becomes "2017-10-20 20:00 UTC"; empty if there is no such time.
std::string ReadTime(const Json &header)
{
    const auto found = header.find("refTime");
    const std::string text = found != header.end() && found->is_string() ? found->get<std::string>() : "";
    return text.size() >= 16 && text[10] == 'T' ? text.substr(0, 10) + " " + text.substr(11, 5) + " UTC" : "";
}

bool ReadComponent(const Json &records, int parameterNumber, const char *name, SComponent &out)
{
    const Json *record = FindRecord(records, parameterNumber);
    if (record == nullptr)
        return out.m_Error = std::string("has no ") + name + " component of the wind", false;
    out.m_Time = ReadTime(*HeaderOf(*record));
    if (ReadGrid(*HeaderOf(*record), out.m_Grid, out.m_Error) &&
        ReadValues(*record, out.m_Grid, out.m_Values, out.m_Error))
        return true;
    out.m_Error = std::string("has a ") + name + " component that " + out.m_Error;
    return false;
}

bool SameGrid(const SGrid &a, const SGrid &b)
{
    return a.m_Columns == b.m_Columns && a.m_Rows == b.m_Rows && a.m_West == b.m_West && a.m_North == b.m_North &&
           a.m_StepEast == b.m_StepEast && a.m_StepSouth == b.m_StepSouth;
}

bool ReadBothComponents(const std::string &path, SComponent &outU, SComponent &outV, std::string &outError)
{
    std::string text;
    Json records;
    if (!ReadFile(path, text, outError) || !ParseJson(text, records, outError))
        return false;
    if (!ReadComponent(records, kEastwardNumber, "u", outU))
        return outError = outU.m_Error, false;
    if (!ReadComponent(records, kNorthwardNumber, "v", outV))
        return outError = outV.m_Error, false;
    if (!SameGrid(outU.m_Grid, outV.m_Grid))
        return outError = "has a u and a v component on different grids", false;
    return true;
}

SWind Mix(const SWind &a, const SWind &b, float weightOfB)
{
    return {a.m_East + (b.m_East - a.m_East) * weightOfB, a.m_North + (b.m_North - a.m_North) * weightOfB};
}
} // namespace

bool CWindField::Load(const std::string &path, std::string &outError)
{
    SComponent u, v;
    std::string problem;
    if (!ReadBothComponents(path, u, v, problem))
        return outError = path + " " + problem, false;
    m_Grid = u.m_Grid;
    m_Time = u.m_Time;
    m_Winds.resize(u.m_Values.size());
    for (size_t i = 0; i < m_Winds.size(); ++i)
        m_Winds[i] = {u.m_Values[i], v.m_Values[i]};
    return true;
}

SWind CWindField::Sample(float longitude, float latitude) const
{
    const float columns = float(m_Grid.m_Columns);
    float x = (longitude - float(m_Grid.m_West)) / float(m_Grid.m_StepEast);
    x -= columns * std::floor(x / columns);
    const float y =
        std::clamp((float(m_Grid.m_North) - latitude) / float(m_Grid.m_StepSouth), 0.0f, float(m_Grid.m_Rows - 1));

    const u32 west = std::min(u32(x), m_Grid.m_Columns - 1);
    const u32 east = west + 1 < m_Grid.m_Columns ? west + 1 : 0;
    const u32 north = std::min(u32(y), m_Grid.m_Rows - 2);
    const SWind *upper = &m_Winds[size_t(north) * m_Grid.m_Columns];
    const SWind *lower = upper + m_Grid.m_Columns;
    const float weightEast = x - float(west);
    return Mix(Mix(upper[west], upper[east], weightEast), Mix(lower[west], lower[east], weightEast), y - float(north));
}
} // namespace Wind
