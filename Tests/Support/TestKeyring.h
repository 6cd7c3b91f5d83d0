#pragma once
// A private keyring for tests and benchmarks: a D-Bus session bus of its own
// and a gnome-keyring daemon on it, with HOME and the XDG directories in a
// temporary folder and the login keyring unlocked with a fixed password. The
// user's real keyring is never touched.
//
// The first call of TestKeyring::shared() starts both and points this process
// (and the children it starts later) at them through the environment; they
// stop when the process exits. The bus configuration has no service
// directories, so a stopped keyring daemon stays stopped until
// startDaemon() runs it again.
//
// SecretCallMonitor watches the bus for calls that reach the keyring daemon,
// so that a test can act once a call is under way (pause the daemon, call,
// wait for the monitor, kill the daemon) instead of sleeping.
#include <gio/gio.h>
#include <libsecret/secret.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace fennick::testing {

class TestKeyring {
 public:
  static constexpr const char* password = "fennick-test-password";

  /// The keyring of this process; throws std::runtime_error (with the reason)
  /// when the bus or the daemon cannot be started.
  static TestKeyring& shared() {
    static TestKeyring keyring;
    return keyring;
  }

  ~TestKeyring() {
    secret_service_disconnect();
    stopDaemon();
    stop(bus_);
    if (busConnection_) g_object_unref(busConnection_);
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  /// Stops the keyring daemon and waits until it has exited.
  void stopDaemon() { stop(daemon_); }

  /// Stops the daemon in its tracks (SIGSTOP) and waits until it is stopped:
  /// it stays on the bus, and calls to it wait for an answer that comes only
  /// after resumeDaemon(), or never once killDaemon() ran.
  void pauseDaemon() {
    if (daemon_ <= 0) return;
    kill(daemon_, SIGSTOP);
    int status = 0;
    while (waitpid(daemon_, &status, WUNTRACED) < 0 && errno == EINTR) {
    }
  }

  void resumeDaemon() {
    if (daemon_ > 0) kill(daemon_, SIGCONT);
  }

  /// Kills the daemon (SIGKILL), paused or not, without letting it leave the
  /// bus in order, and waits until it is gone.
  void killDaemon() {
    if (daemon_ <= 0) return;
    kill(daemon_, SIGKILL);
    exitStatus(daemon_);
    daemon_ = -1;
  }

  /// Starts the keyring daemon (again) and waits until it answers on the bus.
  void startDaemon() {
    if (daemon_ > 0) return;
    int input[2];
    if (pipe2(input, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    // Its warnings go to a file in the folder, out of the test output.
    daemon_ = spawn({"gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets"}, input[0], -1,
                    root_ / "daemon.log");
    close(input[0]);
    // --unlock reads the password up to the end of its input.
    const std::string secret(password);
    const bool written = write(input[1], secret.data(), secret.size()) == static_cast<ssize_t>(secret.size());
    close(input[1]);
    if (!written) throw std::runtime_error("could not hand the password to gnome-keyring-daemon");
    const pid_t waiter = spawn({"gdbus", "wait", "--session", "--timeout", "30", "org.freedesktop.secrets"}, -1, -1);
    if (exitStatus(waiter) != 0) throw std::runtime_error("gnome-keyring-daemon did not appear on the test bus");
  }

  const std::filesystem::path& root() const { return root_; }
  const std::string& busAddress() const { return busAddress_; }

  TestKeyring(const TestKeyring&) = delete;
  TestKeyring& operator=(const TestKeyring&) = delete;

 private:
  TestKeyring() {
    char folder[] = "/tmp/fennick-keyring-XXXXXX";
    if (!mkdtemp(folder)) throw std::runtime_error("mkdtemp failed");
    root_ = folder;
    for (const char* sub : {"data", "config", "cache", "run"}) std::filesystem::create_directories(root_ / sub);
    std::filesystem::permissions(root_ / "run", std::filesystem::perms::owner_all);
    setenv("HOME", root_.c_str(), 1);
    setenv("XDG_DATA_HOME", (root_ / "data").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (root_ / "config").c_str(), 1);
    setenv("XDG_CACHE_HOME", (root_ / "cache").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", (root_ / "run").c_str(), 1);
    // Nothing may try to show an unlock prompt on a real display.
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    startBus();
    startDaemon();
  }

  void startBus() {
    const std::filesystem::path config = root_ / "bus.conf";
    std::ofstream(config) << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                             " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                             "<busconfig><type>session</type><listen>unix:dir="
                          << root_.string()
                          << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                             "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                             "<allow own=\"*\"/></policy></busconfig>\n";
    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    bus_ = spawn({"dbus-daemon", "--nofork", "--print-address", "--config-file=" + config.string()}, -1, output[1],
                 root_ / "bus.log");
    close(output[1]);
    std::string address;
    char c;
    while (read(output[0], &c, 1) == 1 && c != '\n') address += c;
    close(output[0]);
    if (address.empty()) throw std::runtime_error("dbus-daemon did not start");
    busAddress_ = address;
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    // The process keeps its shared bus connection, as a program with a main
    // loop does, so that libsecret shares it instead of connecting anew after
    // it dropped its own state; and the connection must survive the bus
    // going away at exit instead of ending the process.
    busConnection_ = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    if (busConnection_) g_dbus_connection_set_exit_on_close(busConnection_, FALSE);
  }

  // Starts a program found on PATH with the given standard input and output
  // (-1: /dev/null for input, inherited for output), and standard error
  // appended to `errors` when one is given.
  static pid_t spawn(const std::vector<std::string>& arguments, int input, int output,
                     const std::filesystem::path& errors = {}) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (input >= 0)
      posix_spawn_file_actions_adddup2(&actions, input, 0);
    else
      posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (output >= 0) posix_spawn_file_actions_adddup2(&actions, output, 1);
    if (!errors.empty()) posix_spawn_file_actions_addopen(&actions, 2, errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    std::vector<char*> argv;
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed) throw std::runtime_error(arguments[0] + " could not be started (is it installed?)");
    return pid;
  }

  static int exitStatus(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  static void stop(pid_t& pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    kill(pid, SIGCONT);  // a paused process takes SIGTERM only once resumed
    exitStatus(pid);
    pid = -1;
  }

  std::filesystem::path root_;
  std::string busAddress_;
  GDBusConnection* busConnection_ = nullptr;
  pid_t bus_ = -1;
  pid_t daemon_ = -1;
};

/// Counts the method calls made to the keyring daemon's objects on a bus,
/// from a monitoring connection of its own (org.freedesktop.DBus.Monitoring).
class SecretCallMonitor {
 public:
  /// Starts monitoring; throws std::runtime_error when the bus refuses.
  explicit SecretCallMonitor(const std::string& busAddress) : seen_(std::make_shared<Seen>()) {
    GError* error = nullptr;
    connection_ = g_dbus_connection_new_for_address_sync(
        busAddress.c_str(),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!connection_) throw failure("could not connect a monitor to the test bus", error);
    g_dbus_connection_set_exit_on_close(connection_, FALSE);
    filter_ = g_dbus_connection_add_filter(connection_, &SecretCallMonitor::filter, new std::shared_ptr<Seen>(seen_),
                                           [](gpointer seen) { delete static_cast<std::shared_ptr<Seen>*>(seen); });
    const char* rules[] = {"type='method_call',path_namespace='/org/freedesktop/secrets'", nullptr};
    GVariant* reply = g_dbus_connection_call_sync(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus.Monitoring", "BecomeMonitor",
                                                  g_variant_new("(^asu)", rules, 0u), nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, 30000, nullptr, &error);
    if (!reply) {
      close();
      throw failure("the test bus refused a monitor", error);
    }
    g_variant_unref(reply);
  }

  ~SecretCallMonitor() { close(); }
  SecretCallMonitor(const SecretCallMonitor&) = delete;
  SecretCallMonitor& operator=(const SecretCallMonitor&) = delete;

  /// Waits until `count` calls have been seen since monitoring began; false
  /// when `timeout` passed first.
  bool waitForCalls(int count, std::chrono::milliseconds timeout) {
    std::unique_lock lock(seen_->mutex);
    return seen_->changed.wait_for(lock, timeout, [&] { return seen_->calls >= count; });
  }

 private:
  struct Seen {
    std::mutex mutex;
    std::condition_variable changed;
    int calls = 0;
  };

  // Runs on GDBus's thread. A monitor only listens: the calls it sees are
  // dropped here, so that nothing tries to answer them.
  static GDBusMessage* filter(GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer data) {
    if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) return message;
    Seen& seen = **static_cast<std::shared_ptr<Seen>*>(data);
    {
      const std::lock_guard lock(seen.mutex);
      ++seen.calls;
    }
    seen.changed.notify_all();
    g_object_unref(message);
    return nullptr;
  }

  static std::runtime_error failure(const std::string& what, GError* error) {
    const std::string reason = error ? error->message : "unknown reason";
    if (error) g_error_free(error);
    return std::runtime_error(what + ": " + reason);
  }

  void close() {
    if (!connection_) return;
    g_dbus_connection_remove_filter(connection_, filter_);
    g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    g_object_unref(connection_);
    connection_ = nullptr;
  }

  std::shared_ptr<Seen> seen_;
  GDBusConnection* connection_ = nullptr;
  guint filter_ = 0;
};

}  // namespace fennick::testing
