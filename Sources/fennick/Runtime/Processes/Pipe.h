#pragma once
// A one-way channel between processes: a kernel pipe with a file handle for
// each end. Hand a pipe to a Process as standard input, output or error; the
// process gives the child its end and closes that end in the parent after the
// launch, so that reading to end of file ends when the child exits.
//
// Both descriptors carry O_CLOEXEC and are closed when their handles are
// released. Thread safety: as FileHandle.
#include "fennick/Runtime/ObjectModel/Object.h"

namespace fennick {

class FileHandle;

class Pipe : public Object {
  FENNICK_DECLARE_CLASS(Pipe, Object)

 public:
  /// A new pipe; nil when the process is out of descriptors.
  static Ref<Pipe> pipe();

  const Ref<FileHandle>& fileHandleForReading() const noexcept { return reading_; }
  const Ref<FileHandle>& fileHandleForWriting() const noexcept { return writing_; }

 protected:
  Pipe(Ref<FileHandle> reading, Ref<FileHandle> writing)
      : reading_(std::move(reading)), writing_(std::move(writing)) {}

 private:
  const Ref<FileHandle> reading_;
  const Ref<FileHandle> writing_;
};

}  // namespace fennick
