// The wind demo: its parts, and a small run of the whole.

#include <support/report_recorder.h>
#include <support/scoped_runtime.h>

#include <wind/motion.h>
#include <wind/program.h>
#include <wind/wind_run.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace
{
using namespace Tessaly;
using namespace Wind;

namespace fs = std::filesystem;

std::string ReadAll(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string ReadAll(std::FILE *file)
{
    std::string text;
    std::rewind(file);
    for (int byte = std::fgetc(file); byte != EOF; byte = std::fgetc(file))
        text += char(byte);
    return text;
}

// A folder of its own for each test, and the program run in it.
class CWindTest : public testing::Test
{
protected:
    struct SResult
    {
        int m_Status;
        std::string m_Out, m_Err;
    };

    CWindTest()
    {
        std::string name = (fs::temp_directory_path() / "wind_test_XXXXXX").string();
        m_Folder = mkdtemp(name.data());
    }
    ~CWindTest() override { fs::remove_all(m_Folder); }

    std::string Path(const std::string &name) const { return (m_Folder / name).string(); }

    std::string Write(const std::string &name, const std::string &text) const
    {
        std::ofstream(m_Folder / name, std::ios::binary) << text;
        return Path(name);
    }

    static SResult Run(const std::vector<std::string> &arguments)
    {
        std::vector<const char *> argv = {"wind"};
        for (const std::string &argument : arguments)
            argv.push_back(argument.c_str());
        std::FILE *out = std::tmpfile();
        std::FILE *err = std::tmpfile();
        const int status = RunProgram(int(argv.size()), argv.data(), out, err);
        SResult result = {status, ReadAll(out), ReadAll(err)};
        std::fclose(out);
        std::fclose(err);
        return result;
    }

    SResult RunSmall(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.end(), {"--size", "16x16", "--out", Path("out")});
        return Run(arguments);
    }
    // The program ends with that status and one line, which has the text in it.
    static void ExpectOneLine(const SResult &result, int status, const std::string &text)
    {
        EXPECT_EQ(result.m_Status, status) << text;
        EXPECT_NE(result.m_Err.find(text), std::string::npos) << result.m_Err << text;
        EXPECT_EQ(result.m_Err.find('\n'), result.m_Err.size() - 1) << result.m_Err;
    }

    fs::path m_Folder;
};

using WindProgram = CWindTest;

// A forecast of 4 by 3 values, 90 degrees apart: u as given, v the same with the sign changed.
std::string SmallForecast(const std::string &u, int nx = 4, const char *secondRecord = "3")
{
    const std::string header = R"("nx":)" + std::to_string(nx) +
                               R"(,"ny":3,"dx":90,"dy":90,"la1":90,"lo1":0,"parameterCategory":2,"parameterNumber":)";
    std::string v;
    for (const char letter : u)
        v += letter == ',' ? ",-" : std::string(1, letter);
    return R"([{"header":{)" + header + R"(2},"data":[)" + u + R"(]},{"header":{)" + header + secondRecord +
           R"(},"data":[-)" + v + "]}]";
}

TEST(WindField, TellsWhenTheWindBlew)
{
    CWindField field;
    std::string error;
    EXPECT_TRUE(field.Load(WIND_DATA_FOLDER "/gfs-wind-2017-10-20.json", error)) << error;
    EXPECT_EQ(field.Time(), "2017-10-20 20:00 UTC");
}

const char *const kValues = "1,2,3,4,5,6,7,8,9,10,11,12";

TEST_F(WindProgram, BadForecastIsNamedInOneLineAndNothingIsWritten)
{
    const std::string good = SmallForecast(kValues);
    const auto with = [&](const std::string &from, const std::string &to)
    { return std::string(good).replace(good.find(from), from.size(), to); };
    const std::pair<std::string, std::string> cases[] = {
        {good.substr(0, good.size() / 2), "is not JSON"},
        {"{}", "has no u component of the wind"},
        {SmallForecast(kValues, 4, "9"), "has no v component of the wind"},
        {with("\"nx\":4,", ""), "has a u component that has a header without nx"},
        {with("\"dx\":90", "\"dx\":80"), "grid does not go around the globe"},
        {with("[1,2", "[1"), "holds 11 values where its header says 12"},
        {with("[1,2", "[1,2e30"), "holds a value that is no wind speed"},
        {with("\"la1\":90", "\"la1\":89"), "grid"},
    };
    for (const auto &[text, problem] : cases)
    {
        const std::string input = Write("bad.json", text);
        const SResult result = Run({"--input", input, "--out", Path("out")});
        ExpectOneLine(result, 2, input + " ");
        ExpectOneLine(result, 2, problem);
        EXPECT_FALSE(fs::exists(m_Folder / "out"));
    }
    EXPECT_EQ(Run({"--input", Path("missing.json"), "--out", Path("out")}).m_Err,
              "wind: " + Path("missing.json") + " cannot be opened\n");
    EXPECT_EQ(Run({"--input", Path("."), "--out", Path("out")}).m_Status, 2) << "a folder";
}

TEST_F(WindProgram, BadOptionGivesOneLineAndStatus2)
{
    const std::vector<std::string> cases[] = {
        {"--speed", "3"},        {"wind.json"},         {"--frames"},           {"--frames", "0"},
        {"--particles", "many"}, {"--particles", "-1"}, {"--particles", "1e3"}, {"--page-size", "4294967297"},
        {"--size", "1440"},      {"--size", "1440x"},   {"--size", "x720"},     {"--size", "0x0"},
        {"--seed", "1 "},        {"--out", ""},         {"--input", ""},        {"--size", "100x100x100"},
    };
    for (const std::vector<std::string> &arguments : cases)
    {
        const SResult result = Run(arguments);
        ExpectOneLine(result, 2, arguments[0]);
        EXPECT_EQ(result.m_Out, "");
    }
    EXPECT_EQ(Run({"--out", Write("file", "")}).m_Status, 2) << "a file where a folder should be";
}

// The library is up, the forecast is loaded, and no assertion may be reported.
class CWindRunTest : public CWindTest
{
protected:
    CWindRunTest()
    {
        std::string error;
        EXPECT_TRUE(m_Field.Load(WIND_DATA_FOLDER "/gfs-wind-2017-10-20.json", error)) << error;
        m_Options.m_OutputFolder = m_Folder.string();
        m_Options.m_ParticleCount = 4000;
        m_Options.m_FrameCount = 120;
        m_Options.m_PageSize = 100;
        m_Options.m_Width = 160;
        m_Options.m_Height = 80;
    }

    Tests::CScopedRuntime m_Runtime;
    Tests::CReportRecorder m_Reports;
    CWindField m_Field;
    SOptions m_Options;
};

using WindParticles = CWindRunTest;
using WindRun = CWindRunTest;

u64 CountInPages(const CParticleStream_MainMemory &stream)
{
    u64 count = 0;
    for (u32 i = 0; i < stream.PageCount(); ++i)
        count += stream.Page(CGuid(i))->ParticleCount();
    return count;
}

void ExpectCountsAddUp(const CWindParticles &particles, u32 frame)
{
    EXPECT_EQ(particles.BirthCount() - particles.DeathCount(), particles.Stream().ParticleCount()) << frame;
    EXPECT_EQ(CountInPages(particles.Stream()), particles.Stream().ParticleCount()) << frame;
}

TEST_F(WindRun, CountsAddUpInEveryFrame)
{
    CWindRun run(m_Options, m_Field);
    u32 peakCount = 0;
    for (u32 frame = 0; frame < m_Options.m_FrameCount; ++frame)
    {
        run.PlayFrame(frame);
        ExpectCountsAddUp(run.Particles(), frame);
        if (run.Snapshot() != nullptr)
            ExpectCountsAddUp(*run.Snapshot(), frame);
        peakCount = std::max(peakCount, run.Particles().Stream().ParticleCount());
    }
    EXPECT_GT(run.Particles().DeathCount(), 2000u);
    EXPECT_GT(peakCount, 3900u);
    EXPECT_LE(peakCount, 4000u);
    EXPECT_EQ(run.Particles().Stream().PageSize(), 400u) << "changed at a third";
    EXPECT_FALSE(run.Particles().Stream().HasPendingResizes());
    ASSERT_NE(run.Snapshot(), nullptr);
}

TEST_F(WindRun, SameSeedGivesTheSameBirthsDeathsAndPicture)
{
    const auto play = [&](u32 seed, u32 pageSize)
    {
        m_Options.m_Seed = seed;
        m_Options.m_PageSize = pageSize;
        CWindRun run(m_Options, m_Field);
        std::vector<std::pair<u64, u64>> counts;
        for (u32 frame = 0; frame < m_Options.m_FrameCount; ++frame)
        {
            run.PlayFrame(frame);
            counts.emplace_back(run.Particles().BirthCount(), run.Particles().DeathCount());
        }
        std::vector<std::string> paths;
        std::string error;
        EXPECT_TRUE(run.WritePictures(paths, error)) << error;
        return counts;
    };
    const auto counts = play(7, 100);
    const std::string picture = ReadAll(m_Folder / "wind.png");
    EXPECT_EQ(play(7, 100), counts);
    EXPECT_EQ(ReadAll(m_Folder / "wind.png"), picture);
    EXPECT_EQ(play(7, 33), counts) << "whatever the pages";
    EXPECT_NE(play(8, 100), counts);
}

constexpr CFloat3 kTint = {0.5f, 0.25f, 0.125f};

TEST_F(WindParticles, EditedLayoutLeavesNoSeamInThePicture)
{
    CLayout first, edited;
    MakeFirstLayout(first);
    MakeEditedLayout(edited, kTint);
    const auto play = [&](u32 editFrame)
    {
        const CPalette palette;
        CCanvas canvas(160, 80);
        CWindParticles particles(m_Field, first, kTint, 100, 1);
        for (u32 frame = 0; frame < 100; ++frame)
        {
            if (frame == editFrame)
                particles.EditLayout(edited);
            particles.Advance(frame, 3000);
            particles.Draw(palette, canvas);
            particles.MaintainPages(1, frame);
        }
        return canvas.ToImage().m_Bytes;
    };
    EXPECT_TRUE(play(50) == play(100)) << "the picture of an unedited run, to the last bit";
}

// The bytes of a picture that was written, one pixel a degree; a map has its caption below.
std::vector<u8> ReadPicture(const std::string &path)
{
    png_image png = {};
    png.version = PNG_IMAGE_VERSION;
    EXPECT_NE(png_image_begin_read_from_file(&png, path.c_str()), 0) << path << ": " << png.message;
    EXPECT_TRUE(png.width == 360 && png.height >= 180);
    png.format = PNG_FORMAT_GRAY;
    std::vector<u8> bytes(PNG_IMAGE_SIZE(png));
    EXPECT_NE(png_image_finish_read(&png, nullptr, bytes.data(), 0, nullptr), 0) << png.message;
    return bytes;
}

// The average over a square of 11 by 11 degrees; 0 to 255.
double BrightnessAround(const std::vector<u8> &picture, int longitude, int latitude)
{
    double sum = 0;
    for (int y = 90 - latitude - 5; y <= 90 - latitude + 5; ++y)
    {
        for (int x = longitude + 180 - 5; x <= longitude + 180 + 5; ++x)
            sum += picture[size_t(y) * 360 + size_t(x)];
    }
    return sum / 121;
}

TEST_F(WindProgram, DrawsThePicturesAndReports)
{
    const std::string out = Path("deep/out");
    const SResult result = Run({"--particles", "12000", "--frames", "60", "--size", "360x180", "--page-size", "64",
                                "--out", out, "--trace", Path("trace.json")});
    EXPECT_EQ(result.m_Status, 0) << result.m_Err;
    EXPECT_EQ(result.m_Err, "");
    for (const char *word : {"birth", "advection", "ageing", "removal", "drawing", "resizing", "collection", "copying",
                             "rebinding", "pages", "bytes", "births", "deaths"})
        EXPECT_NE(result.m_Out.find(word), std::string::npos) << word;

    for (const char *name : {"/wind.png", "/wind-snapshot.png"})
    {
        const std::vector<u8> picture = ReadPicture(out + name);
        const double typhoon = BrightnessAround(picture, 130, 20);
        EXPECT_GT(typhoon, 40.0) << name;
        ASSERT_GE(picture.size(), 360u * (180 + 12)) << "with a caption";
        EXPECT_GT(*std::max_element(picture.begin() + 360 * 180, picture.end()), 150) << "with a caption";
        EXPECT_GT(typhoon, 2.0 * BrightnessAround(picture, 130, -20)) << name << " is upside down";
        EXPECT_GT(typhoon, 2.0 * BrightnessAround(picture, 20, 0)) << name << ": it is calm there";
    }
    const std::vector<u8> pages = ReadPicture(out + "/pages.png");
    EXPECT_GT(BrightnessAround(pages, -150, 40), 100.0) << "the first pages";
    EXPECT_LT(BrightnessAround(pages, 120, 60), 20.0) << "there are not as many yet";
    for (const char *name : {"/wind.png\n", "/wind-snapshot.png\n", "/pages.png\n"})
        EXPECT_NE(result.m_Out.find("written      " + out + name), std::string::npos) << result.m_Out;
    EXPECT_NE(result.m_Out.find(Path("trace.json")), std::string::npos) << result.m_Out;

    const nlohmann::json events = nlohmann::json::parse(ReadAll(m_Folder / "trace.json"))["traceEvents"];
    const auto isTraced = [&](const char *name)
    { return std::any_of(events.begin(), events.end(), [&](const auto &event) { return event["name"] == name; }); };
    for (const char *name : {"advection", "AllocateParticlesIFP", "DeepCopy", "SetPageSize"})
        EXPECT_TRUE(isTraced(name)) << name;
}

TEST_F(WindProgram, OutputThatIsRefusedGivesOneLineAndStatus1)
{
    std::FILE *full = std::fopen("/dev/full", "w"), *err = std::tmpfile();
    const std::string out = Path("out");
    const char *const argv[] = {"wind", "--frames", "1", "--size", "16x16", "--out", out.c_str()};
    EXPECT_EQ(RunProgram(7, argv, full, err), 1);
    EXPECT_EQ(ReadAll(err), "wind: the output cannot be written\n");
    std::fclose(full);
    std::fclose(err);
    fs::remove(m_Folder / "out" / "pages.png");
    fs::create_directory(m_Folder / "out" / "pages.png");
    ExpectOneLine(RunSmall({"--frames", "1"}), 1, "/pages.png cannot be written");
}

#ifdef WIND_HAS_SNAPSHOTS
TEST_F(WindProgram, GoesOnFromWhatItKept)
{
    const std::string file = Path("kept/last.h5");
    SResult result = RunSmall({"--frames", "40", "--particles", "3000", "--snapshot", file});
    ASSERT_EQ(result.m_Status, 0) << result.m_Err;
    EXPECT_NE(result.m_Out.find("written      " + file), std::string::npos);
    const std::vector<std::string> arguments = {"--frames", "1", "--particles", "100", "--from", file};
    result = RunSmall(arguments);
    EXPECT_EQ(result.m_Status, 0) << result.m_Err;
    EXPECT_EQ(result.m_Out.find("= 100 alive"), std::string::npos) << "no births: more were kept" << result.m_Out;

    std::ofstream(file) << "no snapshot";
    result = RunSmall(arguments);
    EXPECT_EQ(result.m_Status, 2);
    EXPECT_NE(result.m_Err.find("not an HDF5 file\nwind: " + file + " cannot be loaded\n"), std::string::npos);
}
#endif

TEST_F(WindProgram, OddRunsWork)
{
    const std::vector<std::string> cases[] = {
        {"--frames", "2"},
        {"--frames", "150", "--particles", "300", "--page-size", "1"}, // collects pages whose resize is pending
        {"--frames", "90", "--particles", "2000", "--page-size", "1048576"},
    };
    for (const std::vector<std::string> &arguments : cases)
    {
        const SResult result = RunSmall(arguments);
        EXPECT_EQ(result.m_Status, 0) << result.m_Err;
        EXPECT_EQ(result.m_Err, "");
    }
}
} // namespace
