// The tool run as a process: installed, what each run says and its status (files that
// cannot be read or written, options out of range, standard streams, pages, many files
// at once, outputs replaced, the module missing), a signal at any phase, and the demo.
#include <signal.h>

#include <future>
#include <thread>

#include "tool_test_support.h"

namespace rawfx::tool::test {
namespace {

// The tool as installed: `cmake --install` into a prefix, the tree moved elsewhere
// (nothing may point back into the prefix or the build tree), with no usable temporary
// directory (TMPDIR names a file); the module is found beside the executable and loaded
// from its own file.
// Every run is in the scratch directory, which holds an RGB picture at 8 and 16 bits,
// a 10 x 10 mask, grey+alpha, CMYK, two pages, a text file, and outputs to replace: one
// only its owner may write, one nobody may, and a link dangling until written through.
TEST(ToolRuns, GiveTheirStatusAndMessageAndAFailureChangesNoFile) {
  ScratchDir scratch;
  const std::string install = "cmake --install " RAWFX_BINARY_DIR " --prefix " + scratch / "prefix" + " > /dev/null";
  ASSERT_EQ(std::system(install.c_str()), 0) << install;
  fs::rename(scratch / "prefix", scratch / "moved");
  const std::string module = scratch / "moved/lib/rawfx/rawfx.so", installed = scratch / "moved/bin/rawfx";
  const std::string tool = "exec env -u RAWFX_MODULE TMPDIR=notes.png " + installed;
  Save(TestImage(24, 16, Layout::RGB, 8), scratch / "rgb.png");
  Save(TestImage(24, 16, Layout::RGB, 16), scratch / "rgb16.png");
  Save(TestImage(10, 10, Layout::Gray, 8), scratch / "mask.png");
  Save(TestImage(30, 20, Layout::GrayAlpha, 16), scratch / "ga.png");
  Save(TestImage(5, 4, Layout::CMYK, 8), scratch / "ink.tif");
  WriteTiff(scratch / "pages.tif", {TestImage(10, 5, Layout::Gray, 8), TestImage(6, 4, Layout::Gray, 8)}, PHOTOMETRIC_MINISBLACK);
  WriteBytes(scratch / "notes.png", "shopping list\n");
  const fs::perms owner = fs::perms::owner_read | fs::perms::owner_write;
  const fs::perms readOnly = fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read;
  WriteBytes(scratch / "private.png", "old"), WriteBytes(scratch / "locked.png", "old");
  fs::permissions(scratch / "private.png", owner), fs::permissions(scratch / "locked.png", readOnly);
  fs::create_directory(scratch / "real");
  fs::create_symlink("real/target.png", scratch / "link.png");
  const std::string full = tool + " > /dev/full", noSpace = "rawfx: cannot write standard output: No space left on device\n";
  const std::string broken = "rawfx: installation error: cannot load module rgb.png";
  const std::string notAnImage = "not a PNG, JPEG, TIFF or WebP image";
  ExpectRuns(scratch, {
      // Runs that succeed; the first writes the output that no failure below may touch.
      {{"oilpaint", "--depth", "8", "rgb16.png", "out.png"}, 0, ""},
      {{"info", "ga.png"}, 0, "ga.png: PNG\n  size:      30 x 20 (0.00 megapixels)\n  channels:  2 (grey+alpha)\n  depth:   "
                              "  16 bits per channel\n  alpha:     yes\n  loads as:  RGBA bitmap (format 5), 16 bits per "
                              "channel, grey+alpha widened to RGBA\n"},
      {{"info", "pages.tif"}, 0, "  pages:     2\n"},
      {{"interlace", "pages.tif", "first.png"}, 0, "note: pages.tif has 2 pages; page 1 was used (choose one with --page)\n"},
      {{"interlace", "-q", "--page", "2", "pages.tif", "second.png"}, 0, ""},
      {{"barrel", "--model", "cmyk", "rgb.png", "cmyk.png"}, 0, "note: cmyk.png: PNG cannot hold 8-bit CMYK: written as 8-bit RGB"},
      {{"polar", "rgb16.png", "fit.Jpeg"}, 0, "note: fit.Jpeg: JPEG cannot hold 16-bit RGB: written as 8-bit RGB"},
      {{"polar", "--verbose", "--threads", "2", "ga.png", "v.png"}, 0, "rawfx: module " + module + "\nrawfx: reading ga.png\n"
                                                                    "rawfx: polar coordinates: ga.png, 30 x 20 RGBA, 16 bits, "
                                                                    "bitmap format RGBA, 2 threads\n"},
      {{"polar", "--verbose", "--async", "ga.png", "v.png"}, 0, "ApplyAsync took"},
      {{"polar", "--verbose", "ga.png", "v.png"}, 0, "megapixels/s; wrote v.png\nrawfx: phases: reading "},
      {{"--help-all"}, 0, "--hkeystone"},
      {{"polar", "-q", "rgb.png", "direct.PNG"}, 0, ""},
      {{"polar", "-q", "-", "-", "--format", "png"}, 0, "", tool + " < rgb.png > from-file.png"},
      {{"polar", "-", "-", "--format", "png"}, 0, "", "cat rgb.png | " + tool + " > from-pipe.png"},
      {{"polar", "rgb.png", "ink.tif", "--out-dir", "same"}, 0, "2 of 2 files written"},
      {{"oilpaint", "-q", "rgb.png", "alone.TIFF"}, 0, ""},
      {{"polar", "rgb.png", "private.png"}, 0, ""},
      {{"polar", "rgb.png", "link.png"}, 0, ""},
      // Files that cannot be read or written: status 2, the file named.
      {{"polar", "missing.png", "out.png"}, 2, "cannot read missing.png: No such file or directory"},
      {{"oilpaint", "notes.png", "out.png"}, 2, "cannot read notes.png: " + notAnImage},
      {{"info", "notes.png"}, 2, notAnImage},
      {{"info", "-"}, 2, "rawfx: cannot read standard input: " + notAnImage + "\n", tool + " < /dev/zero"},
      {{"polar", "rgb.png", "/sys/out.png"}, 2, "cannot write /sys/out.png: cannot create a file in /sys"},  // even for root
      {{"polar", "rgb.png", "no/such/dir/out.png"}, 2, "No such file or directory"},
      {{"polar", "rgb.png", "locked.png"}, 2, "cannot write locked.png: the file is write-protected (mode 444); --force replaces it"},
      {{"polar", "-q", "rgb.png", "-", "--format", "png"}, 2, noSpace, full},
      {{"polar", "-q", "rgb.png", "-", "--format", "jpeg"}, 2, noSpace, full},
      {{"polar", "-q", "rgb.png", "-", "--format", "tiff"}, 2, noSpace, full},
      {{"polar", "-q", "rgb.png", "-", "--format", "webp"}, 2, noSpace, full},
      {{"polar", "rgb.png", "out.bmp"}, 2, "the name must end in .png"},
      {{"polar", "rgb.png", "dir.png/out"}, 2, "the name must end in .png"},
      {{"polar", "rgb.png", "rgb.png"}, 2, "rgb.png is the input file; rawfx never overwrites what it reads"},
      {{"oilpaint", "--mask", "mask.png", "rgb.png", "mask.png"}, 2, "is the mask file"},
      {{"polar", "rgb.png", "out.png", "--suffix", "-x"}, 2, "--suffix needs --out-dir"},
      {{"polar", "rgb.png", "rgb16.png", "out.png"}, 2, "give one INPUT and one OUTPUT, or INPUT... with --out-dir DIR (got 3"},
      {{"polar", "rgb.png", "x/rgb.png", "--out-dir", "o"}, 2, "would both be written to o/rgb.png"},
      {{"polar", "rgb.png", "rgb16.png", "--out-dir", ".", "--format", "png"}, 2, "is the input file rgb.png"},
      {{"oilpaint", "--mask", "mask.png", "rgb.png", "out.png"}, 2, "is 10 x 10 but the input is 24 x 16"},
      {{"polar", "rgb.png"}, 2, "OUTPUT"},
      // Output types and encodings that do not fit.
      {{"polar", "rgb.png", "-"}, 2, "the output - is standard output: give its type with --format"},
      {{"polar", "--format", "bmp", "rgb.png", "out.png"}, 2, "--format: 'bmp' is not a type rawfx writes"},
      {{"polar", "--format", "webp", "rgb.png", "out.png"}, 2, "does not match the output name"},
      {{"polar", "--lossless", "rgb.png", "out.jpg"}, 2, "JPEG is always lossy"},
      {{"polar", "--page", "2", "rgb.png", "out.png"}, 2, "a PNG file has one page"},
      {{"interlace", "--page", "3", "pages.tif", "out.png"}, 2, "the file has 2 pages"},
      {{"polar", "--compress", "jpeg", "rgb.png", "out.tif"}, 2, "--compress: jpeg not in {none,deflate,lzw,zstd}"},
      // The effect refusing the bitmap: status 1.
      {{"oilpaint", "rgb16.png", "out.png"}, 1, "oil paint works on 8-bit images; use --depth 8"},
      // Options out of range, malformed or unknown: status 2.
      {{"oilpaint", "--brush", "6", "rgb.png", "out.png"}, 2, "--brush: 6 is outside [1 - 5] (see rawfx oilpaint --help)"},
      {{"oilpaint", "--smoothness", "0.02", "rgb.png", "out.png"}, 2, "--smoothness: 0.02 is outside [0.04 - 1]"},
      {{"barrel", "--distortion", "abc", "rgb.png", "out.png"}, 2, "--distortion: 'abc' is not a number"},
      {{"barrel", "--hkeystone", "nan", "rgb.png", "out.png"}, 2, "--hkeystone: nan is outside [-1 - 1]"},
      {{"interlace", "--horizontal", "sideways", "rgb.png", "out.png"}, 2, "--horizontal: sideways not in {none,odd,even}"},
      {{"polar", "--colour", "#12345", "rgb.png", "out.png"}, 2, "3, 4, 6 or 8 digits"},
      {{"oilpaint", "--color", "red", "rgb.png", "out.png"}, 2, "unknown option --color for rawfx oilpaint"},  // no background
      {{"blur", "rgb.png", "out.png"}, 2, "unknown command 'blur'"},
      // A module that does not load: status 3. One named explicitly wins over the installed one.
      {{"polar", "--module", "rgb.png", "rgb.png", "b.png"}, 3, broken},
      {{"demo", "--module", "rgb.png"}, 3, broken},
      {{"polar", "rgb.png", "b.png"}, 3, broken, "exec env TMPDIR=notes.png RAWFX_MODULE=rgb.png " + installed},
      {{"polar", "--force", "rgb.png", "locked.png"}, 0, ""},
  }, tool);
  EXPECT_EQ(ReadImage(scratch / "first.png").image.width, 10);
  EXPECT_EQ(ReadImage(scratch / "second.png").image.width, 6);
  EXPECT_EQ(ReadImage(scratch / "fit.Jpeg").type, FileType::JPEG);
  // Standard input, a file or a pipe, and standard output give what files give.
  EXPECT_EQ(ReadText(scratch / "from-file.png"), ReadText(scratch / "direct.PNG"));
  EXPECT_EQ(ReadText(scratch / "from-pipe.png"), ReadText(scratch / "direct.PNG"));
  EXPECT_EQ(ReadImage(scratch / "same/ink.tif").type, FileType::TIFF);
  // A replaced output keeps its mode; a link is written through, nothing left beside its target.
  for (const auto& [name, mode] : {std::pair{"private.png", owner}, {"locked.png", readOnly}})
    EXPECT_EQ(fs::status(scratch / name).permissions() & fs::perms::mask, mode) << name;
  for (const char* name : {"private.png", "locked.png", "real/target.png"})
    EXPECT_TRUE(ReadText(scratch / name).starts_with("\x89PNG")) << name;
  EXPECT_TRUE(fs::is_symlink(scratch / "link.png"));
  EXPECT_EQ(std::distance(fs::directory_iterator(scratch / "real"), {}), 1);
  // Many inputs into one folder: each result as if run alone, the run goes on after a
  // failed file, and one summary line ends it; the status is the worst file's.
  const ToolResult run = RunTool({"oilpaint", "--out-dir", "batch", "--suffix", "-oil", "--format", "tiff", "-q", "rgb.png",
                                  "rgb16.png", "notes.png", "ink.tif"}, scratch, tool);
  EXPECT_EQ(run.status, 2);
  EXPECT_TRUE(run.err.ends_with("rawfx: oil paint: 2 of 4 files written to batch; 2 failed: rgb16.png notes.png\n")) << run.err;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 3) << "one line per failure and the summary";
  EXPECT_EQ(ReadText(scratch / "batch/rgb-oil.tiff"), ReadText(scratch / "alone.TIFF"));
  EXPECT_EQ(ReadImage(scratch / "batch/ink-oil.tiff").image.layout, Layout::CMYK);
  EXPECT_EQ(std::distance(fs::directory_iterator(scratch / "batch"), {}), 2);
  const ToolResult bare = RunTool({}, scratch, tool);
  EXPECT_TRUE(bare.status == 2 && bare.err.find("Subcommands:") != std::string::npos) << bare.err;
  fs::remove(module);
  ExpectRuns(scratch, {{{"polar", "rgb.png", "b.png"}, 3, "installation error: the effects module is missing (looked for " + module}},
             tool);
}

// A signal at each phase of a run: the tool exits within a second with 128 + the
// signal, leaves no temporary file, and the output keeps its old content.
TEST(ToolSignals, EndARunAtAnyPhaseLeavingTheOldOutput) {
  ScratchDir scratch;
  const std::string big = scratch / "big.png", paint = scratch / "paint.png", out = scratch / "out.png";
  Save(TestImage(1200, 900, Layout::RGBA, 16), big);  // slow to read and to write
  Save(SampleImage(1200, 900), paint);                 // slow to oil-paint on one thread
  WriteBytes(out, "old");
  const auto before = scratch.snapshot();
  const Words slowEffect = {"oilpaint", "--brush", "5", "--threads", "1", "-v", paint, out};
  const Words slowFiles = {"interlace", "-v", big, out};
  // The moment to signal: a --verbose line, or the temporary file's appearing.
  const std::tuple<int, const char*, Words, std::string> cases[] = {
      {SIGINT, "SIGINT", slowEffect, "1 thread"},  // cancelled through the engine
      {SIGTERM, "SIGTERM", slowFiles, "rawfx: reading"},
      {SIGHUP, "SIGHUP", slowFiles, "\n.out.png.rawfx-"},
  };
  for (const auto& [signal, name, words, moment] : cases) {
    SCOPED_TRACE(std::string(name) + " at " + moment);
    const std::string pid = scratch / ".pid", starting = "echo $$ > " + pid + "; " + kTool;
    auto run = std::async(std::launch::async, [&, &words = words] { return RunTool(words, scratch, starting); });
    for (const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
         std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
      std::string seen = ReadText(scratch / ".err");
      for (const fs::directory_entry& entry : fs::directory_iterator(scratch.path)) seen += "\n" + entry.path().filename().string();
      if (seen.find(moment) != std::string::npos) break;
    }
    const auto sent = std::chrono::steady_clock::now();
    if (run.wait_for(std::chrono::seconds(0)) == std::future_status::timeout) kill(std::stoi(ReadText(pid)), signal);
    const ToolResult result = run.get();
    EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(1));
    EXPECT_EQ(result.status, 128 + signal) << result.err;
    EXPECT_NE(result.err.find(std::string("interrupted by ") + name + "; nothing was written\n"), std::string::npos)
        << result.err;
    fs::remove(pid);
    EXPECT_EQ(scratch.snapshot(), before);
  }
}

// Every result on the chart and on the given picture (halved to fit twice --size), each
// shown on the page full size with the command that made it; a contact sheet of the chart
// and its 12 results, four to a row; a mask that lets the effect through in the centre
// only; and the same bytes on every run.
TEST(ToolDemo, WritesEveryResultOnTheChartAndTheGivenPictureAContactSheetAndAPage) {
  ScratchDir scratch;
  const std::string directory = scratch / "demo";
  Save(TestImage(500, 100, Layout::RGBA, 16), scratch / "mine.png");
  ExpectRuns(scratch, {{{"demo", "--out", directory, "--size", "96", "--input", scratch / "mine.png"}, 0, "wrote 24 results"}});
  EXPECT_EQ(RunTool({"demo", "--out", scratch / "again", "--size", "96", "-q"}, scratch).out, "");
  const std::string page = ReadText(directory + "/index.html");
  int pictures = 0;  // each source, its mask and 12 results
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    const std::string name = entry.path().filename();
    if (name == "index.html" || name == "contact-sheet.png") continue;
    const Image image = ReadImage(entry.path()).image;
    const bool photo = name.starts_with("photo");
    EXPECT_EQ(std::pair(image.width, image.height), std::pair(photo ? int64_t{166} : 96, photo ? int64_t{33} : 72)) << name;
    EXPECT_NE(page.find("<a href=\"" + name + "\"><img src=\"" + name + "\""), std::string::npos) << name;
    ++pictures;
  }
  EXPECT_EQ(pictures, 28);
  EXPECT_NE(page.find("rawfx oilpaint --brush 4 --mask mask.png sample.png oilpaint-masked.png"), std::string::npos);
  const Image sheet = ReadImage(directory + "/contact-sheet.png").image, mask = ReadImage(directory + "/mask.png").image;
  EXPECT_EQ(std::pair(sheet.width, sheet.height), std::pair(int64_t{8 + 4 * (96 + 8)}, int64_t{8 + 4 * (72 + 8)}));
  EXPECT_TRUE(mask.layout == Layout::Gray && mask.sample(36 * 96 + 48) == 0 && mask.sample(0) == 255);
  for (const char* name : {"/sample.png", "/oilpaint.png"})
    EXPECT_EQ(ReadText(scratch / "again" + name), ReadText(directory + name)) << name;
}

}  // namespace
}  // namespace rawfx::tool::test
