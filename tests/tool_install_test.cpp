// The tool as installed: `cmake --install` into a prefix, the tree moved elsewhere,
// run from another directory with no usable temporary directory. The module is
// found beside the executable, loaded from its own file, and a missing or broken
// module is an installation error with status 3.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tool_test_support.h"

namespace rawfx::tool {
namespace {

using test::Launch;
using test::RunTool;
using test::ScratchDir;
using test::ToolResult;
namespace fs = std::filesystem;

TEST(ToolInstall, RunsFromAMovedPrefixWithoutATemporaryDirectoryAndRefusesAMissingModule) {
  ScratchDir scratch;
  const std::string install = "cmake --install " RAWFX_BINARY_DIR " --prefix " + scratch / "prefix" + " > /dev/null";
  ASSERT_EQ(std::system(install.c_str()), 0) << install;
  // Moved after installing: nothing may point back into the prefix or the build tree.
  fs::rename(scratch / "prefix", scratch / "moved");
  const std::string tool = scratch / "moved/bin/rawfx", module = scratch / "moved/lib/rawfx/rawfx.so";
  ASSERT_TRUE(fs::exists(module));
  fs::create_directory(scratch / "work");
  SaveImage(test::NoiseImage(16, 12, Layout::RGB, 8), scratch / "work/in.png");
  // A TMPDIR that is a plain file: any copy of the module to a temporary directory fails.
  test::WriteBytes(scratch / "not-a-directory", "");
  const Launch installed{tool, scratch / "work", {"TMPDIR=" + scratch / "not-a-directory", "RAWFX_MODULE"}};

  const ToolResult run = RunTool({"polar", "--verbose", "in.png", "out.png"}, scratch, installed);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("rawfx: module " + module + "\n"), std::string::npos) << run.err;
  EXPECT_TRUE(fs::exists(scratch / "work/out.png"));
  EXPECT_NE(RunTool({"--help-all"}, scratch, installed).out.find("--hkeystone"), std::string::npos);

  // The module named explicitly wins over the installed one; a bad one is an installation error.
  const std::string notAModule = scratch / "work/in.png";
  Launch fromVariable = installed;
  fromVariable.environment.push_back("RAWFX_MODULE=" + notAModule);
  const std::pair<ToolResult, std::string> broken[] = {
      {RunTool({"polar", "--module", notAModule, "in.png", "b.png"}, scratch, installed), "cannot load module " + notAModule},
      {RunTool({"demo", "--module", notAModule}, scratch, installed), "cannot load module " + notAModule},
      {RunTool({"polar", "in.png", "b.png"}, scratch, fromVariable), "cannot load module " + notAModule},
  };
  fs::remove(module);
  const ToolResult missing = RunTool({"polar", "in.png", "b.png"}, scratch, installed);
  for (const auto& [result, message] : {broken[0], broken[1], broken[2], std::pair{missing, std::string("missing")}}) {
    EXPECT_EQ(result.status, 3) << result.err;
    EXPECT_EQ(result.err.rfind("rawfx: installation error: ", 0), 0u) << result.err;
    EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
  }
  EXPECT_FALSE(fs::exists(scratch / "work/b.png"));
}

}  // namespace
}  // namespace rawfx::tool
