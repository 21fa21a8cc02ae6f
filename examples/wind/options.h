#pragma once
// The options of the command line.

#include <tz_defs.h>

#include <string>

namespace Wind
{
using namespace Tessaly;

struct SOptions
{
    std::string m_Input;  // the forecast
    std::string m_Source; // of the forecast, for the caption
    std::string m_OutputFolder = "out";
    std::string m_TraceFile;      // empty: no trace
    std::string m_SnapshotFile;   // empty: no snapshot after the last frame
    std::string m_FromFile;       // empty: the run starts without particles
    u32 m_ParticleCount = 200000; // live particles at most
    u32 m_FrameCount = 240;
    u32 m_PageSize = 1024; // in particles
    u32 m_Width = 1440;
    u32 m_Height = 720;
    u32 m_Seed = 20;
};

enum class EParse
{
    Run,
    Help,
    Bad
};

// Reads the arguments into outOptions. Help: outText is the help. Bad: outText is the error, in one line.
EParse ParseOptions(int argc, const char *const *argv, SOptions &outOptions, std::string &outText);
} // namespace Wind
