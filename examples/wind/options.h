#pragma once
// The command line: what the program was asked to do, checked before anything runs.

#include <tz_defs.h>

#include <string>

namespace Wind
{
using namespace Tessaly;

struct SOptions
{
    std::string m_Input;  // the forecast
    std::string m_Source; // where it comes from, for the picture
    std::string m_OutputFolder = "out";
    std::string m_TraceFile;      // empty: no trace
    std::string m_SnapshotFile;   // empty: the last state is not kept
    std::string m_FromFile;       // empty: the run starts without particles
    u32 m_ParticleCount = 200000; // alive when the wind blows at its fullest
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

// Reads the arguments into `outOptions`. Help: `outText` is the text. Bad: it says in one line what is wrong.
EParse ParseOptions(int argc, const char *const *argv, SOptions &outOptions, std::string &outText);
} // namespace Wind
