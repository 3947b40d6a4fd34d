// Runs a test body in a forked child, for behaviour that needs a fresh process
// (start-up of the module, caches that bind once).
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace rawfx::test {

struct ChildResult {
  bool exitedNormally = false;
  int exitCode = -1;
  std::string output;  // what the child wrote to its report pipe
};

// Forks; the child runs body, writes what it returns to the pipe and exits 0.
// A crash or a non-zero exit shows as exitedNormally false / exitCode.
ChildResult RunInChild(const std::function<std::string()>& body);

// A host that is nothing but a resolver: the names it knows and every name it was asked.
struct ScriptedHost {
  std::map<std::string, void*, std::less<>> known;
  std::vector<std::string> asked;

  template <typename Fn>
  void Learn(const char* name, Fn* routine) {
    known[name] = reinterpret_cast<void*>(routine);
  }
  int Asks(std::string_view name) const;
};

// Runs body in a fresh process (so every stub cache starts empty) with the
// plug-in's resolver answering from a new scripted host; expectations that fail
// in the child print there and fail the case here.
void InFreshProcess(const std::function<void(ScriptedHost&)>& body);

}  // namespace rawfx::test
