#include "Tools/ToolRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace fennick::tooltest {

namespace {

struct Pipe {
  int read = -1;
  int write = -1;
  Pipe() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    read = fds[0];
    write = fds[1];
  }
};

// Feeds standard input and drains both outputs together, so that a child that
// writes much to one stream while we write the other never deadlocks.
void pump(int in, const std::string& input, int out, int err, ToolResult& result) {
  std::size_t written = 0;
  if (input.empty()) {
    close(in);
    in = -1;
  }
  while (out >= 0 || err >= 0 || in >= 0) {
    pollfd fds[3] = {{out, POLLIN, 0}, {err, POLLIN, 0}, {in, POLLOUT, 0}};
    if (poll(fds, 3, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    char buffer[65536];
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
      else {
        close(fds[i].fd);
        (i == 0 ? out : err) = -1;
      }
    }
    if (in >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
      const ssize_t n = ::write(in, input.data() + written, input.size() - written);
      if (n > 0) written += static_cast<std::size_t>(n);
      if (n <= 0 || written == input.size()) {
        close(in);
        in = -1;
      }
    }
  }
}

}  // namespace

ToolResult runTool(const std::vector<std::string>& arguments, const std::string& input,
                   const std::vector<std::string>& environment) {
  signal(SIGPIPE, SIG_IGN);
  Pipe in, out, err;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.read, 0);
  posix_spawn_file_actions_adddup2(&actions, out.write, 1);
  posix_spawn_file_actions_adddup2(&actions, err.write, 2);

  std::vector<std::string> argv = {FENNICK_TOOL_PATH};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  std::vector<char*> args;
  for (std::string& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) env.emplace_back(*e);
  env.insert(env.end(), environment.begin(), environment.end());
  std::vector<char*> envp;
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);

  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(in.read);
  close(out.write);
  close(err.write);
  ToolResult result;
  if (spawned != 0) {
    close(in.write);
    close(out.read);
    close(err.read);
    result.err = std::string("spawn failed: ") + std::strerror(spawned);
    return result;
  }
  pump(in.write, input, out.read, err.read, result);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace fennick::tooltest
