#include "utils/queued_line.h"

#include <cstring>
#include <new>

namespace zel {
namespace logdetail {

std::unique_ptr<Message> QueuedLine::Make(WriteFn write, void* writer, const char* text,
                                          size_t length, bool toBackends) {
  void* memory = ::operator new(sizeof(QueuedLine) + length + 1);
  QueuedLine* line = new (memory) QueuedLine(write, writer, length, toBackends);
  memcpy(line->Text(), text, length);
  line->Text()[length] = '\0';
  return std::unique_ptr<Message>(line);
}

}  // namespace logdetail
}  // namespace zel
