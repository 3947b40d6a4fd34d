// Runs a test body in a forked child, for behaviour that needs a fresh process
// (start-up of the module, caches that bind once).
#pragma once

#include <functional>
#include <string>

namespace rawfx::test {

struct ChildResult {
  bool exitedNormally = false;
  int exitCode = -1;
  std::string output;  // what the child wrote to its report pipe
};

// Forks; the child runs body, writes what it returns to the pipe and exits 0.
// A crash or a non-zero exit shows as exitedNormally false / exitCode.
ChildResult RunInChild(const std::function<std::string()>& body);

}  // namespace rawfx::test
