// One process's lines, read through a fixed buffer from its files in order
// (rotated ones oldest first, then the current one). Memory stays the buffer,
// however large the files or long the lines.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

namespace zelctl {

struct LineView {
  const char* data = nullptr;
  size_t size = 0;       // without the newline
  bool partial = false;  // a line longer than the buffer: more of it follows
};

class LineStream {
 public:
  enum class Result { kLine, kNoMoreNow, kEnd };
  // Called with the path of a file that cannot be opened or read, and why.
  using ErrorSink = std::function<void(const std::string& path, const std::string& reason)>;

  LineStream(size_t buffer_size, ErrorSink on_error);
  ~LineStream();
  LineStream(const LineStream&) = delete;
  LineStream& operator=(const LineStream&) = delete;

  // Queues a file that is complete: read to its end, a last line without a
  // newline counts as a line.
  void AddFinalFile(const std::string& path);
  // Queues text read from elsewhere (lines a dead process left staged), as
  // a complete file; `name` stands for it in error reports.
  void AddFinalText(const std::string& name, std::string text);
  // Queues the file being written (opened now, so that a rotation between
  // polls cannot swap it): at its end NextLine answers kNoMoreNow and holds
  // back a last line without a newline. False when it cannot be opened.
  bool AddLiveFile(const std::string& path);
  // The live file was rotated away: read it to its end as a complete file.
  void MarkLiveFileFinal();
  // The inode of the live file (0 when none), to notice a rotation.
  ino_t live_inode() const;
  dev_t live_device() const;
  bool has_live_file() const;
  // A live file shorter than what was read was cut: read it again from the start.
  void RestartIfTruncated();

  // The next line, valid until the next call. kNoMoreNow: the live file has
  // no complete line yet; kEnd: every queued file was read.
  Result NextLine(LineView* line);

 private:
  struct QueuedFile {
    std::string path;
    std::shared_ptr<const std::string> text;  // instead of a file
    bool live = false;
    int fd = -1;  // opened already (live files)
    dev_t device = 0;
    ino_t inode = 0;
  };
  // Opens `path` for reading if it is a regular file; -1 (reported) otherwise.
  int OpenRegular(const std::string& path, dev_t* device, ino_t* inode);
  bool OpenFront();
  void CloseCurrent();
  bool FrontOpen() const { return fd_ >= 0 || front_text_ != nullptr; }
  // read() of the front file, or a copy from its text.
  ssize_t ReadFront(char* into, size_t size);

  std::unique_ptr<char[]> buffer_;
  size_t capacity_;
  size_t begin_ = 0, end_ = 0;  // unread bytes
  size_t scanned_ = 0;          // bytes from begin_ known to hold no newline
  ErrorSink on_error_;
  std::deque<QueuedFile> queue_;
  int fd_ = -1;                                    // the front file, when open
  std::shared_ptr<const std::string> front_text_;  // or the front text, when open
  bool front_live_ = false;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  uint64_t offset_ = 0;        // bytes read from the front file
  bool in_long_line_ = false;  // the last line handed out was a partial piece
};

}  // namespace zelctl
