#include "options.h"

#include <CLI/CLI.hpp>

namespace Wind
{
namespace
{
std::string ProblemIfEmpty(const std::string &text) { return text.empty() ? "the name is empty" : ""; }
} // namespace

EParse ParseOptions(int argc, const char *const *argv, SOptions &outOptions, std::string &outText)
{
    CLI::App app("Particles carried by a real forecast, drawn as a picture of the wind.", "wind");
    std::pair<u32, u32> size(outOptions.m_Width, outOptions.m_Height);
    app.add_option("--input", outOptions.m_Input, "the forecast (one comes with the program)")
        ->check(ProblemIfEmpty)
        ->type_name("FILE");
    app.add_option("--particles", outOptions.m_ParticleCount, "live particles at most (200000)")
        ->check(CLI::Range(1, 50'000'000))
        ->type_name("N");
    app.add_option("--frames", outOptions.m_FrameCount, "number of frames (240)")
        ->check(CLI::Range(1, 100'000))
        ->type_name("N");
    app.add_option("--page-size", outOptions.m_PageSize, "particles per page at the start (1024)")
        ->check(CLI::Range(1, 1 << 20))
        ->type_name("N");
    app.add_option("--size", size, "size of the map in pixels (1440x720)")
        ->delimiter('x')
        ->check(CLI::Range(16, 16'384))
        ->type_name("WxH");
    app.add_option("--seed", outOptions.m_Seed, "seed of the random numbers (20)")->type_name("N");
    app.add_option("--out", outOptions.m_OutputFolder, "folder of the pictures (out)")
        ->check(ProblemIfEmpty)
        ->type_name("FOLDER");
    app.add_option("--trace", outOptions.m_TraceFile, "write the profiler scopes as trace-event JSON")
        ->check(ProblemIfEmpty)
        ->type_name("FILE");
    app.add_option("--snapshot", outOptions.m_SnapshotFile, "save the particles after the last frame as HDF5")
        ->check(ProblemIfEmpty)
        ->type_name("FILE");
    app.add_option("--from", outOptions.m_FromFile, "start with the particles of a snapshot")
        ->check(ProblemIfEmpty)
        ->type_name("FILE");
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::CallForHelp &)
    {
        return outText = app.help(), EParse::Help;
    }
    catch (const CLI::ParseError &error)
    {
        return outText = error.what(), EParse::Bad;
    }
    outOptions.m_Width = size.first;
    outOptions.m_Height = size.second;
    return EParse::Run;
}
} // namespace Wind
