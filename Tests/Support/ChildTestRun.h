#pragma once
// Runs one test of this binary again in a child process set up differently:
// in a user and mount namespace of its own (as `unshare -rm` does, so that it
// may mount file systems and set per-namespace limits without touching the
// host's), as an unprivileged user (so that permissions hold even when the
// tests run as root), or with extra environment variables.
//
// The outer test calls FENNICK_RUN_IN_CHILD("Suite.Inner", setup); the inner
// test starts with FENNICK_ONLY_IN_CHILD(), which skips it anywhere else (ctest
// lists it like any other test). An inner test that cannot set itself up
// exits with kChildCannotSetUp, which skips the outer test.
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

namespace fennick::filetest {

inline constexpr const char* kChildTestVariable = "FENNICK_CHILD_TEST";
inline constexpr int kChildCannotSetUp = 77;

struct ChildSetup {
  bool privateNamespace = false;
  bool unprivileged = false;  // drops to the user "nobody" when running as root
  std::vector<std::string> environment = {};
  // The child runs out of descriptors, which a build checked by
  // UndefinedBehaviorSanitizer cannot do: it reads the vtable of a type it
  // has not met through a pipe, and without one reports every such object
  // as broken (no suppression helps, since the type's name is in that
  // vtable too). Such tests run in the other builds.
  bool exhaustsDescriptors = false;
};

// The address-sanitizer build is the one that also checks undefined behaviour.
#ifdef __SANITIZE_ADDRESS__
inline constexpr bool kTypeChecksNeedDescriptors = true;
#else
inline constexpr bool kTypeChecksNeedDescriptors = false;
#endif

enum class ChildRun { Passed, Failed, Unavailable };

inline ChildRun runTestInChild(const std::string& testName, const ChildSetup& setup) {
  // Everything the child needs is made before fork: after it, only system calls.
  const std::string filter = "--gtest_filter=" + testName;
  const std::string uidMap = "0 " + std::to_string(::getuid()) + " 1\n";
  const std::string gidMap = "0 " + std::to_string(::getgid()) + " 1\n";
  const std::string marker = std::string(kChildTestVariable) + "=1";
  std::vector<char*> arguments = {const_cast<char*>("/proc/self/exe"), const_cast<char*>(filter.c_str()), nullptr};
  const std::vector<std::string>& variables = setup.environment;
  std::vector<char*> environment;
  // A variable of the setup replaces the inherited one: getenv() finds the
  // first of two.
  auto nameOf = [](std::string_view variable) { return variable.substr(0, variable.find('=')); };
  auto overridden = [&](std::string_view variable) {
    for (const std::string& own : variables)
      if (nameOf(own) == nameOf(variable)) return true;
    return false;
  };
  for (char** variable = environ; *variable; ++variable)
    if (!overridden(*variable)) environment.push_back(*variable);
  for (const std::string& variable : variables) environment.push_back(const_cast<char*>(variable.c_str()));
  environment.push_back(const_cast<char*>(marker.c_str()));
  environment.push_back(nullptr);
  // Raw system calls only in the child: made by clone() below, it bypasses
  // the fork handling of a sanitizer's runtime, whose locks another thread
  // may have held at that moment.
  auto writeAll = [](const char* path, const char* text) {
    const auto descriptor = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CLOEXEC));
    if (descriptor < 0) return false;
    const auto length = static_cast<long>(std::strlen(text));
    const bool written = ::syscall(SYS_write, descriptor, text, length) == length;
    ::syscall(SYS_close, descriptor);
    return written;
  };
  // The namespaces come with the child itself: unshare() refuses a new user
  // namespace to a process with more than one thread, and a sanitizer's
  // runtime may start one in a child of fork().
  const pid_t child = setup.privateNamespace
                          ? static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD | CLONE_NEWUSER | CLONE_NEWNS, nullptr,
                                                         nullptr, nullptr, nullptr))
                          : ::fork();
  if (child == 0) {
    if (setup.privateNamespace) {
      if (!writeAll("/proc/self/setgroups", "deny") || !writeAll("/proc/self/uid_map", uidMap.c_str()) ||
          !writeAll("/proc/self/gid_map", gidMap.c_str()))
        ::_exit(kChildCannotSetUp);
      if (::syscall(SYS_mount, "none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) ::_exit(kChildCannotSetUp);
    }
    if (setup.unprivileged && ::geteuid() == 0) {
      constexpr uid_t kNobody = 65534;
      if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)
        ::_exit(kChildCannotSetUp);
    }
    ::execve(arguments[0], arguments.data(), environment.data());
    ::_exit(kChildCannotSetUp);
  }
  if (child < 0) return ChildRun::Unavailable;
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == kChildCannotSetUp) return ChildRun::Unavailable;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? ChildRun::Passed : ChildRun::Failed;
}

inline bool inChildTest() { return std::getenv(kChildTestVariable) != nullptr; }

}  // namespace fennick::filetest

#define FENNICK_ONLY_IN_CHILD()                                                      \
  do {                                                                               \
    if (!::fennick::filetest::inChildTest())                                         \
      GTEST_SKIP() << "runs in a child process set up by its outer test";            \
  } while (0)

#define FENNICK_RUN_IN_CHILD(inner, ...)                                                            \
  do {                                                                                              \
    const ::fennick::filetest::ChildSetup childSetup __VA_ARGS__;                                   \
    if (childSetup.exhaustsDescriptors && ::fennick::filetest::kTypeChecksNeedDescriptors)          \
      GTEST_SKIP() << "UndefinedBehaviorSanitizer cannot check types without descriptors";          \
    switch (::fennick::filetest::runTestInChild(inner, childSetup)) {                               \
      case ::fennick::filetest::ChildRun::Passed: break;                                            \
      case ::fennick::filetest::ChildRun::Failed: FAIL() << inner << " failed in its child process"; \
      case ::fennick::filetest::ChildRun::Unavailable:                                              \
        GTEST_SKIP() << "this machine cannot set up the child process " << inner << " needs";       \
    }                                                                                               \
  } while (0)
