// One line queued for a log writer (the process log or a named log): the
// message and the line's text in a single allocation. Internal; not installed.
#pragma once

#include <cstddef>
#include <memory>

#include "utils/looper.h"

namespace zel {
namespace logdetail {

class QueuedLine final : public Message {
 public:
  // Runs on the writer's loop thread with the line's text (NUL-terminated
  // after `length` characters) and the caller's sink flag.
  using WriteFn = void (*)(void* writer, const char* text, size_t length, bool toBackends);

  // A message that hands a copy of `length` characters at `text` to
  // write(writer, ...) when run. Any thread.
  static std::unique_ptr<Message> Make(WriteFn write, void* writer, const char* text, size_t length,
                                       bool toBackends);
  // Paired with Make's allocation; found through the virtual destructor.
  static void operator delete(void* memory) { ::operator delete(memory); }

  void Run() override { write(writer, Text(), length, toBackends); }

 private:
  QueuedLine(WriteFn fn, void* target, size_t size, bool sinks)
      : write(fn), writer(target), length(size), toBackends(sinks) {}
  // The text follows the object in the same allocation.
  char* Text() { return reinterpret_cast<char*>(this + 1); }

  const WriteFn write;  // all immutable
  void* const writer;
  const size_t length;
  const bool toBackends;
};

}  // namespace logdetail
}  // namespace zel
