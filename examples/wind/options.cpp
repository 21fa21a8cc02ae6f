#include "options.h"

#include <charconv>
#include <cstring>

namespace Wind
{
namespace
{
struct SRange
{
    u32 m_Min, m_Max;
};

constexpr SRange kParticleRange = {1, 50'000'000};
constexpr SRange kFrameRange = {1, 100'000};
constexpr SRange kPageSizeRange = {1, 1u << 20};
constexpr SRange kSizeRange = {16, 16'384};
constexpr SRange kSeedRange = {0, 0xFFFFFFFFu};

bool ReadNumber(const std::string &text, const SRange &range, u32 &outNumber)
{
    u32 number = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < range.m_Min || number > range.m_Max)
        return false;
    outNumber = number;
    return true;
}

bool ReadSize(const std::string &text, SOptions &outOptions)
{
    const size_t cross = text.find('x');
    return cross != std::string::npos && ReadNumber(text.substr(0, cross), kSizeRange, outOptions.m_Width) &&
           ReadNumber(text.substr(cross + 1), kSizeRange, outOptions.m_Height);
}

bool ReadText(const std::string &text, std::string &outText)
{
    outText = text;
    return !text.empty();
}

struct SOption
{
    const char *m_Name;
    const char *m_Value; // what the help calls it
    const char *m_Help;
    bool (*m_Read)(const std::string &value, SOptions &outOptions);
};

constexpr SOption kOptions[] = {
    {"--input", "FILE", "the forecast (default: the one that comes with the program)",
     [](const std::string &value, SOptions &out) { return ReadText(value, out.m_Input); }},
    {"--particles", "N", "particles alive at the fullest (200000)",
     [](const std::string &value, SOptions &out) { return ReadNumber(value, kParticleRange, out.m_ParticleCount); }},
    {"--frames", "N", "length of the run (240)",
     [](const std::string &value, SOptions &out) { return ReadNumber(value, kFrameRange, out.m_FrameCount); }},
    {"--page-size", "N", "particles in a page at the start (1024)",
     [](const std::string &value, SOptions &out) { return ReadNumber(value, kPageSizeRange, out.m_PageSize); }},
    {"--size", "WxH", "size of the pictures in pixels (1440x720)", ReadSize},
    {"--seed", "N", "the same seed gives the same births and deaths (20)",
     [](const std::string &value, SOptions &out) { return ReadNumber(value, kSeedRange, out.m_Seed); }},
    {"--out", "FOLDER", "where the pictures go (out)",
     [](const std::string &value, SOptions &out) { return ReadText(value, out.m_OutputFolder); }},
    {"--trace", "FILE", "write the profiler scopes there, as trace-event JSON",
     [](const std::string &value, SOptions &out) { return ReadText(value, out.m_TraceFile); }},
};

const SOption *FindOption(const char *name)
{
    for (const SOption &option : kOptions)
    {
        if (std::strcmp(option.m_Name, name) == 0)
            return &option;
    }
    return nullptr;
}
} // namespace

EParse ParseOptions(int argc, const char *const *argv, SOptions &outOptions, std::string &outError)
{
    for (int i = 1; i < argc; ++i)
    {
        if (std::strcmp(argv[i], "--help") == 0)
            return EParse::Help;
        const SOption *option = FindOption(argv[i]);
        if (option == nullptr)
            return outError = std::string("unknown option ") + argv[i] + " (--help lists them)", EParse::Bad;
        if (i + 1 == argc)
            return outError = std::string(argv[i]) + " needs a value: " + option->m_Value, EParse::Bad;
        if (!option->m_Read(argv[++i], outOptions))
            return outError = std::string(option->m_Name) + " cannot be '" + argv[i] + "'", EParse::Bad;
    }
    return EParse::Run;
}

std::string HelpText()
{
    std::string text = "wind: particles carried by a real forecast, drawn as a picture of the wind\n\n";
    for (const SOption &option : kOptions)
    {
        std::string left = std::string("  ") + option.m_Name + " " + option.m_Value;
        left.resize(22, ' ');
        text += left + option.m_Help + "\n";
    }
    return text + "  --help              this text\n";
}
} // namespace Wind
