#pragma once
// Runs tests of this binary in a child process with a user and mount
// namespace of its own (as `unshare -rm` does), where they may mount file
// systems and set per-namespace limits without touching the host's.
//
// A test that needs it calls runInPrivateNamespace("Suite.InnerTest"); the
// inner test starts with FENNICK_ONLY_IN_PRIVATE_NAMESPACE(), which skips it
// when it runs anywhere else (ctest lists it like any other test).
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace fennick::filetest {

inline constexpr const char* kPrivateNamespaceVariable = "FENNICK_IN_PRIVATE_NAMESPACE";

enum class NamespaceRun { Passed, Failed, Unavailable };

inline NamespaceRun runInPrivateNamespace(const std::string& testName) {
  // Everything the child needs is made before fork: after it, only system calls.
  const std::string filter = "--gtest_filter=" + testName;
  const std::string uidMap = "0 " + std::to_string(::getuid()) + " 1\n";
  const std::string gidMap = "0 " + std::to_string(::getgid()) + " 1\n";
  const std::string marker = std::string(kPrivateNamespaceVariable) + "=1";
  std::vector<char*> arguments = {const_cast<char*>("/proc/self/exe"), const_cast<char*>(filter.c_str()), nullptr};
  std::vector<char*> environment;
  for (char** variable = environ; *variable; ++variable) environment.push_back(*variable);
  environment.push_back(const_cast<char*>(marker.c_str()));
  environment.push_back(nullptr);
  auto writeAll = [](const char* path, const char* text) {
    const int descriptor = ::open(path, O_WRONLY | O_CLOEXEC);
    if (descriptor < 0) return false;
    const bool written = ::write(descriptor, text, std::strlen(text)) == static_cast<ssize_t>(std::strlen(text));
    ::close(descriptor);
    return written;
  };
  constexpr int kUnavailable = 77;
  const pid_t child = ::fork();
  if (child == 0) {
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) ::_exit(kUnavailable);
    if (!writeAll("/proc/self/setgroups", "deny") || !writeAll("/proc/self/uid_map", uidMap.c_str()) ||
        !writeAll("/proc/self/gid_map", gidMap.c_str()))
      ::_exit(kUnavailable);
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) ::_exit(kUnavailable);
    ::execve(arguments[0], arguments.data(), environment.data());
    ::_exit(kUnavailable);
  }
  if (child < 0) return NamespaceRun::Unavailable;
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == kUnavailable) return NamespaceRun::Unavailable;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? NamespaceRun::Passed : NamespaceRun::Failed;
}

inline bool inPrivateNamespace() { return std::getenv(kPrivateNamespaceVariable) != nullptr; }

}  // namespace fennick::filetest

#define FENNICK_ONLY_IN_PRIVATE_NAMESPACE()                                      \
  do {                                                                           \
    if (!::fennick::filetest::inPrivateNamespace())                              \
      GTEST_SKIP() << "runs inside a private namespace, started by its outer test"; \
  } while (0)

#define FENNICK_RUN_IN_PRIVATE_NAMESPACE(inner)                                               \
  do {                                                                                        \
    switch (::fennick::filetest::runInPrivateNamespace(inner)) {                              \
      case ::fennick::filetest::NamespaceRun::Passed: break;                                  \
      case ::fennick::filetest::NamespaceRun::Failed: FAIL() << inner << " failed inside its namespace"; \
      case ::fennick::filetest::NamespaceRun::Unavailable:                                    \
        GTEST_SKIP() << "user and mount namespaces are not available on this machine";        \
    }                                                                                         \
  } while (0)
