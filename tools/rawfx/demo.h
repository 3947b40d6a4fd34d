// rawfx demo: every effect with several telling settings on the built-in test
// chart and on a photograph (the user's --input, else a packaged one when
// installed), each result as a PNG, a contact sheet of the chart's results and an
// index.html that shows every result with the command that made it.
#pragma once

#include <ostream>
#include <string>

#include "host/host.h"

namespace rawfx::tool {

struct DemoOptions {
  std::string directory = "rawfx-demo";
  int width = 384;  // of the sample; its height is 3/4 of this
  int threads = 0;
  bool quiet = false;
  std::string input;  // a picture of the user's, shown beside the built-in ones
};

// ToolError when a file cannot be written or an effect fails; effects whose class
// is not in the plug-in are skipped and listed as missing.
void RunDemo(host::Host& host, const DemoOptions& options, std::ostream& log);

}  // namespace rawfx::tool
