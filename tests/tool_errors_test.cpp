// The tool run as a process where things go wrong: every error gives one line,
// its exit status and no output file; a signal at any phase leaves no file; many
// files go on after a failed one; a replaced output keeps what the old one had;
// and the demo and info commands produce what they promise.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
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
      {{"polar", in, in}, 2, in + " is the input file; rawfx never overwrites what it reads"},
      {{"oilpaint", "--mask", scratch / "mask.png", in, scratch / "mask.png"}, 2, "is the mask file"},
      {{"polar", in, out, "--suffix", "-x"}, 2, "--suffix needs --out-dir"},
      {{"polar", in, in16, out}, 2, "give one INPUT and one OUTPUT, or INPUT... with --out-dir DIR (got 3 files)"},
      {{"polar", in, scratch / "x/rgb.png", "--out-dir", scratch / "o"}, 2, "would both be written to " + scratch / "o/rgb.png"},
      {{"polar", in, scratch / "rgb16.png", "--out-dir", scratch.path(), "--format", "png"}, 2, "is the input file " + in},
      {{"polar", "--format", "bmp", in, out}, 2, "--format: 'bmp' is not a type rawfx writes"},
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
      {{"barrel", "--distortion", "12", in, out}, 2, "--distortion: 12 is outside [-1 - 10]"},
      {{"barrel", "--distortion", "abc", in, out}, 2, "--distortion: 'abc' is not a number"},
      {{"barrel", "--hkeystone", "nan", in, out}, 2, "--hkeystone"},
      {{"barrel", "--vkeystone", "-1.01", in, out}, 2, "--vkeystone"},
      {{"interlace", "--horizontal", "sideways", in, out}, 2, "--horizontal"},
      {{"polar", "--colour", "#12345", in, out}, 2, "3, 4, 6 or 8 digits"},
      {{"oilpaint", "--colour", "red", in, out}, 2, "unknown option --colour for rawfx oilpaint"},
      {{"polar", "--threads", "-1", in, out}, 2, "--threads"},
      {{"polar", "--depth", "12", in, out}, 2, "--depth"},
      {{"polar", "--model", "hsv", in, out}, 2, "--model"},
      {{"polar", "--sharpen", in, out}, 2, "unknown option --sharpen for rawfx polar"},
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

// A signal at each phase of a run: the tool exits within a second with 128 + the
// signal, leaves no temporary file, and the output keeps its old content.
TEST(ToolSignals, EndARunAtAnyPhaseLeavingTheOldOutput) {
  ScratchDir scratch;
  const std::string big = scratch / "big.png", paint = scratch / "paint.png", out = scratch / "out.png";
  SaveImage(test::NoiseImage(1200, 900, Layout::RGBA, 16), big);  // slow to read and to write
  SaveImage(SampleImage(1200, 900), paint);                         // slow to oil-paint on one thread
  test::WriteBytes(out, "old");
  const std::set<std::string> before = scratch.names();
  const Words slowEffect = {"oilpaint", "--brush", "5", "--threads", "1", "-v", paint, out};
  const Words slowFiles = {"interlace", "-v", big, out};
  // The moment to signal: a --verbose line, or the temporary file's appearing.
  const std::tuple<int, const char*, Words, std::string> cases[] = {
      {SIGINT, "SIGINT", slowEffect, "1 thread"},  // cancelled through the engine
      {SIGTERM, "SIGTERM", slowFiles, "rawfx: reading"},
      {SIGHUP, "SIGHUP", slowFiles, ".out.png.rawfx-"},
      {SIGTERM, "SIGTERM", slowFiles, ".out.png.rawfx-"},
  };
  for (const auto& [signal, name, words, moment] : cases) {
    SCOPED_TRACE(std::string(name) + " at " + moment);
    test::ToolProcess process(words, scratch);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const auto reached = [&, &moment = moment] {
      if (process.errSoFar().find(moment) != std::string::npos) return true;
      const std::set<std::string> names = scratch.names();
      return std::any_of(names.begin(), names.end(), [&](const std::string& n) { return n.rfind(moment, 0) == 0; });
    };
    while (!reached() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const auto sent = std::chrono::steady_clock::now();
    kill(process.pid(), signal);
    const ToolResult run = process.wait();
    EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(1));
    EXPECT_EQ(run.status, 128 + signal) << run.err;
    EXPECT_NE(run.err.find(std::string("rawfx: interrupted by ") + name + "; nothing was written\n"), std::string::npos)
        << run.err;
    EXPECT_EQ(scratch.names(), before);
    EXPECT_EQ(test::ReadText(out), "old");
  }
}

// Many inputs into one folder: each result as if run alone, the run goes on after
// a failed file, and one summary line ends it; the status is the worst file's.
TEST(ToolBatch, WritesEachInputGoesOnAfterAFailureAndSumsUp) {
  ScratchDir scratch;
  SaveImage(test::NoiseImage(12, 8, Layout::RGB, 8), scratch / "a.png");
  SaveImage(test::NoiseImage(12, 8, Layout::RGB, 16), scratch / "b16.png");  // oil paint refuses 16 bits: status 1
  test::WriteBytes(scratch / "c.png", "not a picture");                        // unreadable: status 2
  SaveImage(test::NoiseImage(9, 7, Layout::CMYK, 8), scratch / "d.tif");
  const Words inputs = {scratch / "a.png", scratch / "b16.png", scratch / "c.png", scratch / "d.tif"};
  Words words = {"oilpaint", "--out-dir", scratch / "out", "--suffix", "-oil", "--format", "tiff", "-q"};
  words.insert(words.end(), inputs.begin(), inputs.end());
  const ToolResult batch = RunTool(words, scratch);
  EXPECT_EQ(batch.status, 2) << batch.err;
  EXPECT_NE(batch.err.find("rawfx: oil paint: 2 of 4 files written to " + scratch / "out" + "; 2 failed: " +
                           inputs[1] + " " + inputs[2] + "\n"),
            std::string::npos)
      << batch.err;
  EXPECT_EQ(std::count(batch.err.begin(), batch.err.end(), '\n'), 3) << "one line per failure and the summary";
  ASSERT_EQ(RunTool({"oilpaint", "-q", inputs[0], scratch / "alone.tiff"}, scratch).status, 0);
  EXPECT_EQ(test::ReadText(scratch / "out/a-oil.tiff"), test::ReadText(scratch / "alone.tiff"));
  EXPECT_EQ(ReadImage(scratch / "out/d-oil.tiff").image.layout, Layout::CMYK);
  EXPECT_EQ(std::filesystem::directory_iterator(scratch / "out")->path().extension(), ".tiff");

  const ToolResult kept = RunTool({"polar", inputs[0], inputs[3], "--out-dir", scratch / "same"}, scratch);
  EXPECT_EQ(kept.status, 0) << kept.err;
  EXPECT_NE(kept.err.find("2 of 2 files written"), std::string::npos) << kept.err;
  EXPECT_EQ(ReadImage(scratch / "same/d.tif").type, FileType::TIFF);
}

// Replacing an output behaves like writing it in place: its mode stays, a file
// nobody may write is refused unless --force, and a link is written through.
TEST(ToolOutputReplacement, KeepsTheModeRefusesAProtectedFileAndWritesThroughALink) {
  namespace fs = std::filesystem;
  ScratchDir scratch;
  const std::string in = scratch / "in.png", kept = scratch / "private.png", locked = scratch / "locked.png";
  SaveImage(test::NoiseImage(8, 8, Layout::RGB, 8), in);
  const auto mode = [](const std::string& path) { return fs::status(path).permissions() & fs::perms::mask; };
  const auto run = [&](Words words) { return RunTool(words, scratch); };
  const auto isImage = [](const std::string& path) { return test::ReadText(path).rfind("\x89PNG", 0) == 0; };

  test::WriteBytes(kept, "old");
  fs::permissions(kept, fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_EQ(run({"polar", in, kept}).status, 0);
  EXPECT_TRUE(isImage(kept));
  EXPECT_EQ(mode(kept), fs::perms::owner_read | fs::perms::owner_write);

  test::WriteBytes(locked, "old");
  const fs::perms readOnly = fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read;
  fs::permissions(locked, readOnly);
  const ToolResult refused = run({"polar", in, locked});
  EXPECT_EQ(refused.status, 2);
  EXPECT_NE(refused.err.find("cannot write " + locked + ": the file is write-protected (mode 444); --force replaces it"),
            std::string::npos)
      << refused.err;
  EXPECT_EQ(test::ReadText(locked), "old");
  ASSERT_EQ(run({"polar", "--force", in, locked}).status, 0);
  EXPECT_TRUE(isImage(locked));
  EXPECT_EQ(mode(locked), readOnly);

  fs::create_directory(scratch / "real");
  fs::create_symlink("real/target.png", scratch / "link.png");  // dangling until written through
  ASSERT_EQ(run({"polar", in, scratch / "link.png"}).status, 0);
  EXPECT_TRUE(fs::is_symlink(scratch / "link.png"));
  EXPECT_TRUE(isImage(scratch / "real/target.png"));
  EXPECT_EQ(fs::directory_iterator(scratch / "real")->path().filename(), "target.png") << "no leftover";
}

TEST(ToolDemo, WritesEveryResultOnTheChartAndTheGivenPictureAContactSheetAndAPage) {
  ScratchDir scratch;
  const std::string directory = scratch / "demo";
  SaveImage(test::NoiseImage(500, 100, Layout::RGBA, 16), scratch / "mine.png");  // halved to fit 2 x --size
  const ToolResult run = RunTool({"demo", "--out", directory, "--size", "96", "--input", scratch / "mine.png"}, scratch);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("wrote 24 results"), std::string::npos) << run.out;
  const std::string page = test::ReadText(directory + "/index.html");
  // The page shows every picture (each source, its mask and 12 results), opening it full size, with the
  // command that made it.
  int pictures = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    const std::string name = entry.path().filename();
    if (name == "index.html" || name == "contact-sheet.png") continue;
    const Image image = ReadImage(entry.path()).image;
    const auto size = name.rfind("photo", 0) == 0 ? std::pair<int64_t, int64_t>{166, 33} : std::pair<int64_t, int64_t>{96, 72};
    EXPECT_EQ(std::make_pair(image.width, image.height), size) << name;
    EXPECT_NE(page.find("<a href=\"" + name + "\"><img src=\"" + name + "\""), std::string::npos) << name;
    ++pictures;
  }
  EXPECT_EQ(pictures, 28);
  EXPECT_NE(page.find("rawfx oilpaint --brush 4 --mask mask.png sample.png oilpaint-masked.png"), std::string::npos);
  EXPECT_NE(page.find("rawfx polar --to-rect photo-polar.png photo-polar-round-trip.png"), std::string::npos);
  EXPECT_NE(page.find("Your picture: mine.png"), std::string::npos);
  EXPECT_NE(page.find("<meta name=\"viewport\" content=\"width=device-width"), std::string::npos);
  const Image sheet = ReadImage(directory + "/contact-sheet.png").image;
  EXPECT_EQ(sheet.width, 8 + 4 * (96 + 8));
  EXPECT_EQ(sheet.height, 8 + 4 * (72 + 8));  // the chart and its 12 results, four to a row
  // The mask lets the effect through in the centre and keeps the source in the corners.
  const Image mask = ReadImage(directory + "/mask.png").image;
  ASSERT_EQ(mask.layout, Layout::Gray);
  EXPECT_EQ(mask.sample(36 * 96 + 48), 0u);
  EXPECT_EQ(mask.sample(0), 255u);

  // The chart is made in code: the same bytes on every run.
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
