#pragma once
// A private desktop for GTK tests: an Xvfb X server and a D-Bus session bus
// (on which GTK finds the accessibility bus), started by the test and ended
// with it. Tools that play the person (AT-SPI reader, xdotool) run against it.
#include <nlohmann/json.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace fennick::gtktest {

struct CommandResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

/// Runs argv[0] (searched on PATH) to its end and captures its output.
CommandResult runCommand(const std::vector<std::string>& argv);

class DesktopSession {
 public:
  /// Starts the X server and the bus and points DISPLAY and
  /// DBUS_SESSION_BUS_ADDRESS of this process at them. On failure,
  /// failure() says why.
  DesktopSession();
  ~DesktopSession();
  DesktopSession(const DesktopSession&) = delete;
  DesktopSession& operator=(const DesktopSession&) = delete;

  /// Why the desktop could not be started; nullopt when it runs.
  const std::optional<std::string>& failure() const { return failure_; }

  /// The window of `role` ("dialog" for alerts, "frame") as AT-SPI reports it, once one
  /// with buttons appeared: {"window": {...}, "buttons": [...], "checkboxes":
  /// [...], "labels": [...]}, each with role, name, description, extents.
  /// With a `name`, only a window of that accessible name counts.
  nlohmann::json readWindow(const std::string& role, const std::string& name = {}) const;
  /// Moves the pointer to the middle of `extents` ([x, y, width, height] on
  /// screen) and clicks the first button, through the X server.
  void click(const nlohmann::json& extents) const;
  /// Saves the whole screen as a PNG; false when that failed.
  bool saveScreenshot(const std::string& path) const;

 private:
  pid_t startInGroup(const std::vector<std::string>& argv, int reportFd, int reportTarget);
  std::optional<std::string> readLine(int fd, std::chrono::seconds timeout);

  std::optional<std::string> failure_;
  pid_t xServer_ = -1;
  pid_t bus_ = -1;
};

/// Where a test's output files (screenshots) go: created on demand.
std::string outputDirectory();

}  // namespace fennick::gtktest
