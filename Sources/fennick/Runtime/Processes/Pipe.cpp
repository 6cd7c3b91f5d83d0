#include "fennick/Runtime/Processes/Pipe.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Processes/FileHandle.h"

#include <fcntl.h>
#include <unistd.h>

namespace fennick {

FENNICK_DEFINE_CLASS(Pipe) {
  builder.property("fileHandleForReading", &Pipe::fileHandleForReading);
  builder.property("fileHandleForWriting", &Pipe::fileHandleForWriting);
}

Ref<Pipe> Pipe::pipe() {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return nullptr;
  return make<Pipe>(FileHandle::initWithFileDescriptor_closeOnDealloc(fds[0], true),
                    FileHandle::initWithFileDescriptor_closeOnDealloc(fds[1], true));
}

}  // namespace fennick
