// The tool run as a process where things go wrong: every error gives one line,
// its exit status and no output file; Ctrl-C cancels through the engine; and the
// demo and info commands produce what they promise.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <regex>
#include <thread>

#include "tool_test_support.h"
#include "tools/rawfx/sample_image.h"

namespace rawfx::tool {
namespace {

using test::RunTool;
using test::ScratchDir;
using test::ToolResult;
using Words = std::vector<std::string>;

using Failure = std::tuple<Words, int, std::string>;  // the words, the status, the message

// Each run must end with the status and one line "rawfx: ..." holding the
// message, and leave nothing but what was there in the scratch directory.
void ExpectFailures(const ScratchDir& scratch, const std::vector<Failure>& failures) {
  for (const auto& [words, status, message] : failures) {
    SCOPED_TRACE(testing::PrintToString(words));
    const std::set<std::string> before = scratch.names();
    const ToolResult run = RunTool(words, scratch);
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_TRUE(std::regex_match(run.err, std::regex("rawfx: [^\n]+\n"))) << run.err;
    EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(scratch.names(), before) << "a failed run left a file";
  }
}

TEST(ToolErrors, EveryFailureIsOneLineWithItsStatusAndLeavesNoFile) {
  ScratchDir scratch;
  const std::string in = scratch / "rgb.png", in16 = scratch / "rgb16.png", out = scratch / "out.png";
  const std::string notes = scratch / "notes.png", missing = scratch / "missing.png";
  SaveImage(test::NoiseImage(24, 16, Layout::RGB, 8), in);
  SaveImage(test::NoiseImage(24, 16, Layout::RGB, 16), in16);
  SaveImage(test::NoiseImage(10, 10, Layout::Gray, 8), scratch / "mask.png");
  test::WriteBytes(notes, "shopping list\n");
  // Root may write anywhere but in /sys.
  std::string locked = "/sys";
  if (geteuid() != 0) {
    std::filesystem::create_directory(locked = scratch / "locked");
    std::filesystem::permissions(locked, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
  }
  ExpectFailures(scratch, {
      // Files that cannot be read or written: status 2, the file named (the readers' own
      // reasons are checked in tool_image_io_test).
      {{"polar", missing, out}, 2, "cannot read " + missing + ": No such file or directory"},
      {{"oilpaint", notes, out}, 2, "not a PNG, JPEG, TIFF or WebP image"},
      {{"info", notes}, 2, "not a PNG, JPEG, TIFF or WebP image"},
      {{"polar", in, locked + "/out.png"}, 2, "cannot write " + locked + "/out.png: cannot create a file in " + locked},
      {{"polar", in, scratch / "no/such/dir/out.png"}, 2, "No such file or directory"},
      {{"polar", in, scratch / "out.bmp"}, 2, "the name must end in .png"},
      {{"polar", in, in}, 2, "rawfx never overwrites its input"},
      {{"oilpaint", "--mask", scratch / "mask.png", in, out}, 2, "is 10 x 10 but the input is 24 x 16"},
      {{"polar", in}, 2, "OUTPUT"},
      // Output types and encodings that do not fit.
      {{"polar", in, "-"}, 2, "the output - is standard output: give its type with --format"},
      {{"polar", "--format", "webp", in, out}, 2, "does not match the output name"},
      {{"polar", "--lossless", in, scratch / "out.jpg"}, 2, "JPEG is always lossy"},
      {{"polar", "--page", "2", in, out}, 2, "a PNG file has one page"},
      {{"polar", "--compress", "jpeg", in, scratch / "out.tif"}, 2, "--compress"},
      // The effect refusing the bitmap: status 1.
      {{"oilpaint", in16, out}, 1, "oil paint works on 8-bit images; use --depth 8"},
      {{"oilpaint", "--depth", "16", in, out}, 1, "oil paint works on 8-bit images"},
      // Options out of range or unknown: bad usage, status 2.
      {{"oilpaint", "--brush", "0", in, out}, 2, "--brush"},
      {{"oilpaint", "--brush", "6", in, out}, 2, "see rawfx oilpaint --help"},
      {{"oilpaint", "--smoothness", "0.02", in, out}, 2, "--smoothness"},
      {{"oilpaint", "--smoothness", "1.5", in, out}, 2, "--smoothness"},
      {{"oilpaint", "--color", "#ffffff", in, out}, 2, "--color"},  // oil paint has no background
      {{"barrel", "--distortion", "12", in, out}, 2, "--distortion"},
      {{"barrel", "--hkeystone", "nan", in, out}, 2, "--hkeystone"},
      {{"barrel", "--vkeystone", "-1.01", in, out}, 2, "--vkeystone"},
      {{"interlace", "--horizontal", "sideways", in, out}, 2, "--horizontal"},
      {{"polar", "--color", "#12345", in, out}, 2, "6 or 8 digits"},
      {{"polar", "--threads", "-1", in, out}, 2, "--threads"},
      {{"polar", "--depth", "12", in, out}, 2, "--depth"},
      {{"polar", "--model", "hsv", in, out}, 2, "--model"},
      {{"polar", "--sharpen", in, out}, 2, "--sharpen"},
      {{"blur", in, out}, 2, "blur"},
  });
  const ToolResult bare = RunTool({}, scratch);
  EXPECT_EQ(bare.status, 2);
  EXPECT_NE(bare.err.find("Subcommands:"), std::string::npos) << bare.err;

  // A failed run leaves an earlier output as it was, and never touches the input.
  ASSERT_EQ(RunTool({"oilpaint", "--depth", "8", in16, out}, scratch).status, 0);
  const std::string before = test::ReadText(out), input = test::ReadText(in16);
  ExpectFailures(scratch, {{{"oilpaint", in16, out}, 1, "8-bit"}});
  EXPECT_EQ(test::ReadText(out), before);
  EXPECT_EQ(test::ReadText(in16), input);
}

// Ctrl-C during a long run: the engine cancels between rows and nothing is written.
TEST(ToolCancel, InterruptingALargeRunWritesNothingAndExits130) {
  ScratchDir scratch;
  const std::string in = scratch / "large.png";
  SaveImage(SampleImage(1200, 900), in);
  test::ToolProcess process({"oilpaint", "--brush", "5", "--threads", "1", "--verbose", in, scratch / "out.png"},
                            scratch);
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
  EXPECT_EQ(scratch.names(), std::set<std::string>{"large.png"});
}

TEST(ToolDemo, WritesEveryResultAContactSheetAndAPage) {
  ScratchDir scratch;
  const std::string directory = scratch / "demo";
  const ToolResult run = RunTool({"demo", "--out", directory, "--size", "96"}, scratch);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("wrote 12 results"), std::string::npos) << run.out;
  const std::string page = test::ReadText(directory + "/index.html");
  // The page shows every picture (the sample, its mask and the 12 results) and the command that made each.
  int pictures = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    const std::string name = entry.path().filename();
    if (name == "index.html" || name == "contact-sheet.png") continue;
    const Image image = ReadImage(entry.path()).image;
    EXPECT_EQ(std::make_pair(image.width, image.height), std::make_pair(int64_t{96}, int64_t{72})) << name;
    EXPECT_NE(page.find("<img src=\"" + name + "\""), std::string::npos) << name;
    ++pictures;
  }
  EXPECT_EQ(pictures, 14);
  EXPECT_NE(page.find("rawfx oilpaint --brush 4 --mask mask.png sample.png oilpaint-masked.png"), std::string::npos);
  const Image sheet = ReadImage(directory + "/contact-sheet.png").image;
  EXPECT_EQ(sheet.width, 8 + 4 * (96 + 8));
  EXPECT_EQ(sheet.height, 8 + 4 * (72 + 8));  // the sample and 12 results, four to a row
  // The mask lets the effect through in the centre and keeps the source in the corners.
  const Image mask = ReadImage(directory + "/mask.png").image;
  ASSERT_EQ(mask.layout, Layout::Gray);
  EXPECT_EQ(mask.sample(36 * 96 + 48), 0u);
  EXPECT_EQ(mask.sample(0), 255u);

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
