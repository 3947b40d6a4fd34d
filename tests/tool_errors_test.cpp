// The tool run as a process where things go wrong: every error gives one line,
// its exit status and no output file; Ctrl-C cancels through the engine; and the
// demo and info commands produce what they promise.
#include <gtest/gtest.h>

#include <regex>

#include "tool_test_support.h"
#include "tools/rawfx/image_io.h"
#include "tools/rawfx/sample_image.h"

namespace rawfx::tool {
namespace {

using test::RunTool;
using test::ScratchDir;
using test::ToolResult;

class ToolErrors : public testing::Test {
 protected:
  void SetUp() override {
    SaveImage(test::NoiseImage(24, 16, Layout::RGB, 8), scratch_ / "rgb.png");
    SaveImage(test::NoiseImage(24, 16, Layout::RGB, 16), scratch_ / "rgb16.png");
    SaveImage(test::RampImage(24, 16, Layout::RGB), scratch_ / "rgb.jpg");
  }

  // Runs the tool, expects the status and one line "rawfx: ..." holding `message`,
  // and that nothing but the inputs is left in the scratch directory.
  void ExpectFailure(const std::vector<std::string>& words, int status, const std::string& message) {
    SCOPED_TRACE(message);
    const std::vector<std::string> before = Sorted(scratch_.names());
    const ToolResult run = RunTool(words, scratch_);
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_TRUE(std::regex_match(run.err, std::regex("rawfx: [^\n]+\n"))) << run.err;
    EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(Sorted(scratch_.names()), before) << "a failed run left a file";
  }

  static std::vector<std::string> Sorted(std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string Cut(const std::string& name) {
    const std::string bytes = test::ReadText(scratch_ / name);
    test::WriteBytes(scratch_ / ("cut-" + name), bytes.substr(0, bytes.size() * 2 / 3));
    return scratch_ / ("cut-" + name);
  }

  ScratchDir scratch_;
};

TEST_F(ToolErrors, UnreadableInputOrUnwritableOutputIsStatusTwoNamingTheFile) {
  const std::string in = scratch_ / "rgb.png", out = scratch_ / "out.png";
  const std::string cutPng = Cut("rgb.png"), cutJpeg = Cut("rgb.jpg");
  test::WriteBytes(scratch_ / "notes.png", "shopping list\n");
  const std::string locked = test::UnwritableDirectory(scratch_);
  ExpectFailure({"polar", scratch_ / "missing.png", out}, 2,
                "cannot read " + scratch_ / "missing.png" + ": No such file or directory");
  ExpectFailure({"polar", cutPng, out}, 2, "cannot read " + cutPng + ": corrupt PNG");
  ExpectFailure({"barrel", cutJpeg, out}, 2, "cannot read " + cutJpeg + ": corrupt JPEG: Premature end of JPEG file");
  ExpectFailure({"oilpaint", scratch_ / "notes.png", out}, 2, "not a PNG, JPEG or TIFF image");
  ExpectFailure({"info", scratch_ / "notes.png"}, 2, "not a PNG, JPEG or TIFF image");
  ExpectFailure({"polar", in, locked + "/out.png"}, 2,
                "cannot write " + locked + "/out.png: cannot create a file in " + locked);
  ExpectFailure({"polar", in, scratch_ / "no/such/dir/out.png"}, 2, "No such file or directory");
  ExpectFailure({"polar", in, scratch_ / "out.bmp"}, 2, "the name must end in .png");
  ExpectFailure({"polar", in, in}, 2, "rawfx never overwrites its input");
}

TEST_F(ToolErrors, OutOfRangeOptionsAreBadUsage) {
  const std::string in = scratch_ / "rgb.png", out = scratch_ / "out.png";
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"oilpaint", "--brush", "0"}, "--brush"},
      {{"oilpaint", "--brush", "6"}, "see rawfx oilpaint --help"},
      {{"oilpaint", "--smoothness", "0.02"}, "--smoothness"},
      {{"oilpaint", "--smoothness", "1.5"}, "--smoothness"},
      {{"oilpaint", "--color", "#ffffff"}, "--color"},  // oil paint has no background
      {{"barrel", "--distortion", "12"}, "--distortion"},
      {{"barrel", "--hkeystone", "nan"}, "--hkeystone"},
      {{"barrel", "--vkeystone", "-1.01"}, "--vkeystone"},
      {{"interlace", "--horizontal", "sideways"}, "--horizontal"},
      {{"polar", "--color", "#12345"}, "6 or 8 digits"},
      {{"polar", "--threads", "-1"}, "--threads"},
      {{"polar", "--depth", "12"}, "--depth"},
      {{"polar", "--model", "hsv"}, "--model"},
      {{"polar", "--sharpen"}, "--sharpen"},
      {{"blur"}, "blur"},
  };
  for (auto [words, message] : cases) {
    words.insert(words.end(), {in, out});
    ExpectFailure(words, 2, message);
  }
  ExpectFailure({"polar", in}, 2, "OUTPUT");
  const ToolResult bare = RunTool({}, scratch_);
  EXPECT_EQ(bare.status, 2);
  EXPECT_NE(bare.err.find("Subcommands:"), std::string::npos) << bare.err;
}

TEST_F(ToolErrors, TheEffectRefusingTheBitmapIsStatusOneAndKeepsAnEarlierOutput) {
  const std::string out = scratch_ / "out.png";
  ExpectFailure({"oilpaint", scratch_ / "rgb16.png", out}, 1, "oil paint works on 8-bit images; use --depth 8");
  ExpectFailure({"oilpaint", "--depth", "16", scratch_ / "rgb.png", out}, 1, "oil paint works on 8-bit images");
  ASSERT_EQ(RunTool({"oilpaint", "--depth", "8", scratch_ / "rgb16.png", out}, scratch_).status, 0);
  const std::string before = test::ReadText(out);
  const std::string input = test::ReadText(scratch_ / "rgb16.png");
  ExpectFailure({"oilpaint", scratch_ / "rgb16.png", out}, 1, "8-bit");
  EXPECT_EQ(test::ReadText(out), before);
  EXPECT_EQ(test::ReadText(scratch_ / "rgb16.png"), input) << "the input is never modified";
}

TEST_F(ToolErrors, AMaskOfAnotherSizeIsRefused) {
  SaveImage(test::NoiseImage(10, 10, Layout::Gray, 8), scratch_ / "small-mask.png");
  ExpectFailure({"oilpaint", "--mask", scratch_ / "small-mask.png", scratch_ / "rgb.png", scratch_ / "out.png"}, 2,
                "is 10 x 10 but the input is 24 x 16");
}

// Ctrl-C during a long run: the engine cancels between rows and nothing is written.
TEST(ToolCancel, InterruptingALargeRunWritesNothingAndExits130) {
  ScratchDir scratch;
  const std::string in = scratch / "large.png", out = scratch / "out.png";
  SaveImage(SampleImage(1200, 900), in);
  test::ToolProcess process({"oilpaint", "--brush", "5", "--threads", "1", "--verbose", in, out},
                            scratch.path().string());
  // The verbose start line appears just before the effect starts.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (process.errSoFar().find("thread") == std::string::npos && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const auto interrupted = std::chrono::steady_clock::now();
  kill(process.pid(), SIGINT);
  const ToolResult run = process.wait();
  EXPECT_EQ(run.status, 130) << run.err;
  EXPECT_NE(run.err.find("rawfx: interrupted; nothing was written"), std::string::npos) << run.err;
  EXPECT_LT(std::chrono::steady_clock::now() - interrupted, std::chrono::seconds(2)) << "the workers stop between rows";
  EXPECT_EQ(scratch.names(), std::vector<std::string>{"large.png"});
}

TEST(ToolDemo, WritesEveryResultAContactSheetAndAPage) {
  ScratchDir scratch;
  const std::string directory = scratch / "demo";
  const ToolResult run = RunTool({"demo", "--out", directory, "--size", "96"}, scratch);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("wrote 12 results"), std::string::npos) << run.out;

  const std::string page = test::ReadText(directory + "/index.html");
  for (const std::string name :
       {"interlace-rows.png", "interlace-columns.png", "interlace-masked.png", "polar.png", "polar-no-flip.png",
        "polar-round-trip.png", "barrel.png", "pincushion.png", "keystone.png", "oilpaint.png", "oilpaint-broad.png",
        "oilpaint-masked.png"}) {
    const Image image = ReadImage(directory + "/" + name).image;
    EXPECT_EQ(image.width, 96) << name;
    EXPECT_EQ(image.height, 72) << name;
    EXPECT_NE(page.find("<img src=\"" + name + "\""), std::string::npos) << name;
  }
  // The page shows the command that made each picture.
  EXPECT_NE(page.find("rawfx oilpaint --brush 4 --mask mask.png sample.png oilpaint-masked.png"), std::string::npos);
  const Image sheet = ReadImage(directory + "/contact-sheet.png").image;
  EXPECT_EQ(sheet.width, 8 + 4 * (96 + 8));
  EXPECT_EQ(sheet.height, 8 + 4 * (72 + 8));  // the sample and 12 results, four to a row

  // The sample is made in code: the same bytes on every run.
  const ToolResult again = RunTool({"demo", "--out", scratch / "again", "--size", "96", "-q"}, scratch);
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(again.out, "");
  for (const char* name : {"/sample.png", "/oilpaint.png"})
    EXPECT_EQ(test::ReadText(scratch / "again" + name), test::ReadText(directory + name)) << name;
}

TEST(ToolInfo, DescribesTheFileAndTheBitmapItLoadsAs) {
  ScratchDir scratch;
  SaveImage(test::NoiseImage(30, 20, Layout::GrayAlpha, 16), scratch / "ga.png");
  SaveImage(test::NoiseImage(5, 4, Layout::CMYK, 8), scratch / "ink.tif");
  const ToolResult grey = RunTool({"info", scratch / "ga.png"}, scratch);
  ASSERT_EQ(grey.status, 0) << grey.err;
  EXPECT_EQ(grey.out, scratch / "ga.png" +
                          ": PNG\n"
                          "  size:      30 x 20 (0.00 megapixels)\n"
                          "  channels:  2 (grey+alpha)\n"
                          "  depth:     16 bits per channel\n"
                          "  alpha:     yes\n"
                          "  loads as:  RGBA bitmap (format 5), 16 bits per channel, grey+alpha widened to RGBA\n");
  const ToolResult ink = RunTool({"info", scratch / "ink.tif"}, scratch);
  EXPECT_NE(ink.out.find("channels:  4 (CMYK)"), std::string::npos) << ink.out;
  EXPECT_NE(ink.out.find("loads as:  CMYK bitmap (format 13), 8 bits per channel\n"), std::string::npos) << ink.out;
}

}  // namespace
}  // namespace rawfx::tool
