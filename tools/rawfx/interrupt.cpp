#include "tools/rawfx/interrupt.h"

#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace rawfx::tool {
namespace {

struct HandledSignal {
  int number;
  const char* name;
};
constexpr HandledSignal kHandled[] = {{SIGINT, "SIGINT"}, {SIGTERM, "SIGTERM"}, {SIGHUP, "SIGHUP"}};

// Lock-free atomics are safe to store from a signal handler and to read from any thread.
std::atomic<int> gSignal{0};
std::atomic<bool> gEngineCancels{false};
std::atomic<bool> gHasTemporary{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);
// Written only while gHasTemporary is false, so the handler never reads a half-written name.
char gTemporary[PATH_MAX + 1];
bool gErrorIsTerminal = false;

const char* SignalName(int number) {
  for (const HandledSignal& handled : kHandled)
    if (handled.number == number) return handled.name;
  return "a signal";
}

void WriteError(const char* text) {
  const ssize_t ignored = write(STDERR_FILENO, text, std::strlen(text));
  (void)ignored;
}

// Only async-signal-safe calls from here on: unlink, write, _exit.
[[noreturn]] void EndNow() {
  if (gHasTemporary.load()) unlink(gTemporary);
  if (gErrorIsTerminal) WriteError("\r\033[K");
  WriteError("rawfx: interrupted by ");
  WriteError(SignalName(gSignal.load()));
  WriteError("; nothing was written\n");
  _exit(128 + gSignal.load());
}

// A second signal does not wait for the engine either.
void OnSignal(int number) {
  int expected = 0;
  const bool first = gSignal.compare_exchange_strong(expected, number);
  if (!first || !gEngineCancels.load()) EndNow();
  alarm(1);
}

// The engine did not stop within a second of the signal.
void OnAlarm(int) { EndNow(); }

void Handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  for (const HandledSignal& handled : kHandled) sigaddset(&action.sa_mask, handled.number);
  sigaddset(&action.sa_mask, SIGALRM);
  action.sa_flags = SA_RESTART;
  sigaction(number, &action, nullptr);
}

}  // namespace

void InstallInterruptHandler() {
  gErrorIsTerminal = isatty(STDERR_FILENO);
  for (const HandledSignal& handled : kHandled) Handle(handled.number, OnSignal);
  Handle(SIGALRM, OnAlarm);
}

bool Interrupted() { return gSignal.load(std::memory_order_relaxed) != 0; }
int InterruptSignal() { return gSignal.load(std::memory_order_relaxed); }
int InterruptedStatus() { return 128 + InterruptSignal(); }

std::string InterruptedMessage() {
  return std::string("interrupted by ") + SignalName(InterruptSignal()) + "; nothing was written";
}

EngineCancelScope::EngineCancelScope() { gEngineCancels.store(true); }

// A signal that came while the engine ran has cancelled the run; the caller
// reports it and exits. One that comes from now on ends the process at once.
EngineCancelScope::~EngineCancelScope() { gEngineCancels.store(false); }

void SetTemporaryFile(const std::string& path) {
  gHasTemporary.store(false);
  const size_t length = std::min(path.size(), sizeof gTemporary - 1);
  std::memcpy(gTemporary, path.data(), length);
  gTemporary[length] = '\0';
  gHasTemporary.store(true);
}

void ClearTemporaryFile() { gHasTemporary.store(false); }

}  // namespace rawfx::tool
