#include "GTK/DesktopSession.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <fcntl.h>
#include <gdk/gdk.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace fennick::gtktest {
namespace {

std::vector<char*> argvOf(const std::vector<std::string>& argv) {
  std::vector<char*> pointers;
  for (const auto& argument : argv) pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

int waitFor(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string drain(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) != 0;) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
  }
  close(fd);
  return text;
}

}  // namespace

CommandResult runCommand(const std::vector<std::string>& argv) {
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  pid_t pid = -1;
  auto args = argvOf(argv);
  const int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(err[1]);
  CommandResult result;
  // Standard error is read on the side, so that neither pipe can fill up.
  std::thread errors([&] { result.err = drain(err[0]); });
  result.out = drain(out[0]);
  errors.join();
  if (spawned != 0) {
    result.err = argv[0] + ": cannot start";
    return result;
  }
  result.status = waitFor(pid);
  return result;
}

pid_t DesktopSession::startInGroup(const std::vector<std::string>& argv, int reportFd, int reportTarget) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, reportFd, reportTarget);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  // Its own process group: ending the group ends whatever it started too
  // (the accessibility bus that the session bus activates).
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  pid_t pid = -1;
  auto args = argvOf(argv);
  const int spawned = posix_spawnp(&pid, args[0], &actions, &attributes, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  return spawned == 0 ? pid : -1;
}

std::optional<std::string> DesktopSession::readLine(int fd, std::chrono::seconds timeout) {
  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (line.empty() || line.back() != '\n') {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd ready{fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
    char c;
    if (read(fd, &c, 1) != 1) return std::nullopt;
    line += c;
  }
  line.pop_back();
  return line;
}

DesktopSession::DesktopSession() {
  int display[2], bus[2];
  if (pipe2(display, O_CLOEXEC) != 0 || pipe2(bus, O_CLOEXEC) != 0) {
    failure_ = "cannot make pipes";
    return;
  }
  // Xvfb picks a free display and writes its number to descriptor 3. It must
  // not reset when its last client leaves: the accessibility probe connects
  // and leaves, and a tool connecting during a reset is refused.
  xServer_ = startInGroup(
      {"Xvfb", "-displayfd", "3", "-screen", "0", "1024x768x24", "-nolisten", "tcp", "-noreset"}, display[1], 3);
  close(display[1]);
  const auto number = xServer_ > 0 ? readLine(display[0], std::chrono::seconds(30)) : std::nullopt;
  close(display[0]);
  if (!number) {
    close(bus[0]);
    close(bus[1]);
    failure_ = "no X server could be started (Xvfb missing or failing)";
    return;
  }
  setenv("DISPLAY", (":" + *number).c_str(), 1);

  bus_ = startInGroup({"dbus-daemon", "--session", "--nofork", "--print-address=3"}, bus[1], 3);
  close(bus[1]);
  const auto address = bus_ > 0 ? readLine(bus[0], std::chrono::seconds(30)) : std::nullopt;
  close(bus[0]);
  if (!address) {
    failure_ = "no D-Bus session bus could be started";
    return;
  }
  setenv("DBUS_SESSION_BUS_ADDRESS", address->c_str(), 1);
  // No settings daemon on this desktop: keep GSettings in memory.
  setenv("GSETTINGS_BACKEND", "memory", 1);
  // No GPU under Xvfb: draw with cairo rather than through Mesa's software
  // OpenGL, which is slower here and opaque to the sanitizers.
  setenv("GSK_RENDERER", "cairo", 1);
}

DesktopSession::~DesktopSession() {
  for (pid_t leader : {bus_, xServer_}) {
    if (leader <= 0) continue;
    kill(-leader, SIGTERM);
    waitFor(leader);
  }
}

nlohmann::json DesktopSession::readWindow(const std::string& role, const std::string& name) const {
  std::vector<std::string> argv{"/usr/bin/python3", FENNICK_TEST_SOURCE_DIR "/GTK/atspi_probe.py", role, "30"};
  if (!name.empty()) argv.push_back(name);
  const auto result = runCommand(argv);
  if (result.status != 0) throw std::runtime_error("AT-SPI probe failed: " + result.err);
  return nlohmann::json::parse(result.out);
}

void DesktopSession::click(const nlohmann::json& extents) const {
  const int x = extents.at(0).get<int>() + extents.at(2).get<int>() / 2;
  const int y = extents.at(1).get<int>() + extents.at(3).get<int>() / 2;
  const auto result = runCommand({"xdotool", "mousemove", "--sync", std::to_string(x), std::to_string(y), "click", "1"});
  if (result.status != 0) throw std::runtime_error("xdotool failed: " + result.err);
}

bool DesktopSession::saveScreenshot(const std::string& path) const {
  Display* display = XOpenDisplay(nullptr);
  if (!display) return false;
  const Window root = DefaultRootWindow(display);
  XWindowAttributes attributes;
  XGetWindowAttributes(display, root, &attributes);
  XImage* image = XGetImage(display, root, 0, 0, static_cast<unsigned>(attributes.width),
                            static_cast<unsigned>(attributes.height), AllPlanes, ZPixmap);
  bool saved = false;
  if (image) {
    const int width = attributes.width, height = attributes.height;
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * height * 3);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const unsigned long pixel = XGetPixel(image, x, y);
        std::uint8_t* rgb = &pixels[(static_cast<std::size_t>(y) * width + x) * 3];
        rgb[0] = (pixel >> 16) & 0xFF;
        rgb[1] = (pixel >> 8) & 0xFF;
        rgb[2] = pixel & 0xFF;
      }
    }
    XDestroyImage(image);
    GBytes* bytes = g_bytes_new(pixels.data(), pixels.size());
    GdkTexture* texture = gdk_memory_texture_new(width, height, GDK_MEMORY_R8G8B8, bytes, static_cast<gsize>(width) * 3);
    saved = gdk_texture_save_to_png(texture, path.c_str());
    g_object_unref(texture);
    g_bytes_unref(bytes);
  }
  XCloseDisplay(display);
  return saved;
}

std::string outputDirectory() {
  const std::string directory = FENNICK_TEST_OUTPUT_DIR;
  std::filesystem::create_directories(directory);
  return directory;
}

}  // namespace fennick::gtktest
