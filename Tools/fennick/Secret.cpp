// fennick secret: stores, reads and deletes values in the desktop keyring as
// OVKeychainStorage does, so that scripts can share secrets with programs
// built on the framework.
#include "Command.h"

#include <fennick/Fennick.h>

#include <unistd.h>

#include <cerrno>

namespace fennick::tool {

namespace {

Ref<Data> readStandardInput() {
  std::vector<std::uint8_t> bytes;
  std::uint8_t buffer[1 << 16];
  for (;;) {
    const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return nullptr;
    if (n == 0) return Data::dataWithBytes(std::move(bytes));
    bytes.insert(bytes.end(), buffer, buffer + n);
  }
}

int runSecret(const Arguments& arguments) {
  const std::vector<std::string>& words = arguments.positional();
  const std::string& action = words[0];
  const std::string& key = words[2];
  const auto store = OVKeychainStorage::storageWithName(String::string(words[1]));

  if (action == "set") {
    const Ref<Data> value = readStandardInput();
    if (!value) return fail("secret", "could not read standard input");
    return store->setData_forKey(value, key) ? kExitOK : fail("secret", "could not store the secret");
  }
  if (action == "get") {
    const Ref<Data> value = store->dataForKey(key);
    if (!value) return fail("secret", "no secret '" + key + "' in '" + words[1] + "'");
    std::fwrite(value->bytes(), 1, value->length(), stdout);
    return std::fflush(stdout) == 0 ? kExitOK : fail("secret", "could not write standard output");
  }
  if (action == "delete")
    return store->setData_forKey(nullptr, key) ? kExitOK : fail("secret", "could not delete the secret");
  fail("secret", "unknown action '" + action + "' (set, get or delete)");
  return kExitUsage;
}

}  // namespace

FENNICK_TOOL_COMMAND({.name = "secret",
                      .summary = "store, read or delete a secret in the desktop keyring",
                      .usage = "usage: fennick secret set|get|delete SERVICE KEY\n\n"
                               "Works on the keyring item with the attributes service=SERVICE and\n"
                               "account=KEY, through the Secret Service of the session (gnome-keyring,\n"
                               "KWallet), the same items secret-tool and OVKeychainStorage use.\n\n"
                               "  set      stores standard input (any bytes) as the value\n"
                               "  get      writes the value to standard output; exit status 1 when\n"
                               "           there is none or the keyring cannot be reached\n"
                               "  delete   deletes the item (succeeds when there is none)\n",
                      .minArguments = 3,
                      .maxArguments = 3,
                      .run = runSecret});

}  // namespace fennick::tool
