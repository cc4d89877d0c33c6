// Writes the counts of a process that ends by abort or _exit, as the children of death tests do.
//
// Linked into each library and each test program of a coverage build, and into nothing else. Each of them has counters
// of its own, and can write no others, so each hands the signal on to the one that was loaded before it:
//
//   abort, assertion  -> SIGABRT ---v
//   _exit             -> SIGRTMAX -> program -> libqxdict -> libqxlib -> the end

#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

extern "C" {
#include <gcov.h>
}

namespace {

struct sigaction abort_before;
struct sigaction exit_before;

// A test may have made the machine small. What is not allowed to grow back counts for nothing.
bool LiftLimits() {
  const rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
  const rlimit files = {1024, 1024};
  rlimit now;
  if (getrlimit(RLIMIT_NOFILE, &now) == 0 && now.rlim_cur < files.rlim_cur) setrlimit(RLIMIT_NOFILE, &files);
  setrlimit(RLIMIT_AS, &unlimited);
  if (setrlimit(RLIMIT_FSIZE, &unlimited) != 0) return false;
  void* const memory = malloc(1 << 16);
  free(memory);
  return memory != nullptr;
}

void End(int signal_number) {
  if (LiftLimits()) __gcov_dump();
  const struct sigaction& before = signal_number == SIGABRT ? abort_before : exit_before;
  if (before.sa_handler != SIG_DFL) {
    before.sa_handler(signal_number);
  } else if (signal_number == SIGABRT) {
    signal(SIGABRT, SIG_DFL);
    raise(SIGABRT);  // held until this handler returns
  }
}

[[gnu::constructor]] void Install() {
  struct sigaction end = {};
  end.sa_handler = End;
  sigaction(SIGABRT, &end, &abort_before);
  sigaction(SIGRTMAX, &end, &exit_before);
}

}  // namespace

// The test program's stands in front of the C library's; a library's is not exported.
extern "C" [[noreturn]] void _exit(int status) {
  LiftLimits();  // first of all: without memory the stack cannot grow for a signal
  raise(SIGRTMAX);
  while (true) syscall(SYS_exit_group, status);
}
