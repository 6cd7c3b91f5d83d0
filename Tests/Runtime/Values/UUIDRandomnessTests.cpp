// Identifiers name temporary folders, so nobody may predict them, and a
// forked child must not repeat its parent's: a copy of a generator's state
// (or of unused random bytes) would.
#include "fennick/Runtime/Values/UUID.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

using namespace fennick;

namespace {

TEST(UUIDRandomness, ParentAndForkedChildNeverShareIdentifiers) {
  UUID::init();  // the calling thread's source is in use before the fork
  int channel[2];
  ASSERT_EQ(::pipe(channel), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const UUID::Bytes bytes = UUID::init()->bytes();
    const bool sent = ::write(channel[1], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    ::_exit(sent ? 0 : 1);
  }
  ::close(channel[1]);
  const UUID::Bytes mine = UUID::init()->bytes();
  UUID::Bytes childs{};
  const ssize_t got = ::read(channel[0], childs.data(), childs.size());
  ::close(channel[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  ASSERT_EQ(got, static_cast<ssize_t>(childs.size()));
  EXPECT_NE(mine, childs);
}

}  // namespace
