#include "support/child_process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "plugin/host_binding.h"

namespace rawfx::test {

ChildResult RunInChild(const std::function<std::string()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const std::string report = body();
    for (size_t sent = 0; sent < report.size();) {
      const ssize_t n = write(fds[1], report.data() + sent, report.size() - sent);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    close(fds[1]);
    _exit(0);
  }
  close(fds[1]);
  ChildResult result;
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) result.output.append(buffer, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  result.exitedNormally = WIFEXITED(status);
  result.exitCode = result.exitedNormally ? WEXITSTATUS(status) : -1;
  return result;
}

int ScriptedHost::Asks(std::string_view name) const {
  return static_cast<int>(std::count(asked.begin(), asked.end(), name));
}

namespace {
ScriptedHost* gScripted = nullptr;
}  // namespace

void InFreshProcess(const std::function<void(ScriptedHost&)>& body) {
  std::fflush(nullptr);
  const ChildResult result = RunInChild([&] {
    ScriptedHost host;
    gScripted = &host;
    gResolver = [](const char* name) -> void* {
      gScripted->asked.emplace_back(name);
      const auto found = gScripted->known.find(name);
      return found == gScripted->known.end() ? nullptr : found->second;
    };
    body(host);
    std::fflush(nullptr);
    return std::string(::testing::Test::HasFailure() ? "failed" : "passed");
  });
  EXPECT_TRUE(result.exitedNormally);
  EXPECT_EQ(result.output, "passed");
}

}  // namespace rawfx::test
