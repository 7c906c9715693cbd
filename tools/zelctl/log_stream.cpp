#include "log_stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace zelctl {

LineStream::LineStream(size_t buffer_size, ErrorSink on_error)
    : buffer_(new char[buffer_size]), capacity_(buffer_size), on_error_(std::move(on_error)) {}

LineStream::~LineStream() {
  CloseCurrent();
  for (QueuedFile& file : queue_) {
    if (file.fd >= 0) close(file.fd);
  }
}

int LineStream::OpenRegular(const std::string& path, dev_t* device, ino_t* inode) {
  // Non-blocking, so that a FIFO planted in the folder cannot hang the open.
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    // A file that went away between listing and opening was rotated or
    // removed by its writer: nothing to report.
    if (errno != ENOENT) on_error_(path, std::strerror(errno));
    return -1;
  }
  struct stat info = {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    on_error_(path, S_ISDIR(info.st_mode) ? std::strerror(EISDIR) : "not a regular file");
    close(fd);
    return -1;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
#if defined(__linux__)
  posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
#endif
  *device = info.st_dev;
  *inode = info.st_ino;
  return fd;
}

void LineStream::AddFinalFile(const std::string& path) {
  QueuedFile file;
  file.path = path;
  queue_.push_back(std::move(file));
}

void LineStream::AddFinalText(const std::string& name, std::string text) {
  QueuedFile file;
  file.path = name;
  file.text = std::make_shared<const std::string>(std::move(text));
  queue_.push_back(std::move(file));
}

bool LineStream::AddLiveFile(const std::string& path) {
  QueuedFile file;
  file.path = path;
  file.live = true;
  file.fd = OpenRegular(path, &file.device, &file.inode);
  if (file.fd < 0) return false;
  queue_.push_back(std::move(file));
  return true;
}

void LineStream::MarkLiveFileFinal() {
  if (!queue_.empty() && queue_.back().live) queue_.back().live = false;
  if (fd_ >= 0 && queue_.size() == 1) front_live_ = false;
}

bool LineStream::has_live_file() const { return !queue_.empty() && queue_.back().live; }

ino_t LineStream::live_inode() const {
  if (!has_live_file()) return 0;
  return queue_.size() == 1 && fd_ >= 0 ? inode_ : queue_.back().inode;
}

dev_t LineStream::live_device() const {
  if (!has_live_file()) return 0;
  return queue_.size() == 1 && fd_ >= 0 ? device_ : queue_.back().device;
}

void LineStream::RestartIfTruncated() {
  if (fd_ < 0 || !front_live_) return;
  struct stat info = {};
  if (fstat(fd_, &info) != 0 || static_cast<uint64_t>(info.st_size) >= offset_) return;
  // Cut from outside: what it holds now starts at its beginning.
  lseek(fd_, 0, SEEK_SET);
  offset_ = 0;
  begin_ = end_ = scanned_ = 0;
}

bool LineStream::OpenFront() {
  while (!queue_.empty()) {
    QueuedFile& file = queue_.front();
    if (file.text) {
      front_text_ = file.text;
      front_live_ = false;
      offset_ = 0;
      return true;
    }
    int fd = file.fd;
    dev_t device = file.device;
    ino_t inode = file.inode;
    if (fd < 0) fd = OpenRegular(file.path, &device, &inode);
    if (fd < 0) {
      queue_.pop_front();
      continue;
    }
    file.fd = -1;  // owned by fd_ from here on
    fd_ = fd;
    front_live_ = file.live;
    device_ = device;
    inode_ = inode;
    offset_ = 0;
    return true;
  }
  return false;
}

void LineStream::CloseCurrent() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  front_text_.reset();
}

ssize_t LineStream::ReadFront(char* into, size_t size) {
  if (front_text_ == nullptr) return read(fd_, into, size);
  const size_t count = std::min<size_t>(size, front_text_->size() - offset_);
  std::copy_n(front_text_->data() + offset_, count, into);
  return static_cast<ssize_t>(count);
}

LineStream::Result LineStream::NextLine(LineView* line) {
  char* const buffer = buffer_.get();
  for (;;) {
    if (end_ > begin_) {
      const char* start = buffer + begin_;
      const size_t unread = end_ - begin_;
      const void* newline = std::memchr(start + scanned_, '\n', unread - scanned_);
      if (newline != nullptr) {
        const size_t size = static_cast<size_t>(static_cast<const char*>(newline) - start);
        *line = {start, size, false};
        begin_ += size + 1;
        scanned_ = 0;
        in_long_line_ = false;
        return Result::kLine;
      }
      scanned_ = unread;
      if (unread == capacity_) {
        // A line longer than the buffer goes out in pieces.
        *line = {start, unread, true};
        begin_ = end_ = scanned_ = 0;
        in_long_line_ = true;
        return Result::kLine;
      }
    }
    if (!FrontOpen() && !OpenFront()) return Result::kEnd;
    if (begin_ > 0) {
      std::memmove(buffer, buffer + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
    }
    ssize_t count;
    do {
      count = ReadFront(buffer + end_, capacity_ - end_);
    } while (count < 0 && errno == EINTR);
    if (count > 0) {
      end_ += static_cast<size_t>(count);
      offset_ += static_cast<uint64_t>(count);
      continue;
    }
    if (count < 0) {
      on_error_(queue_.front().path, std::strerror(errno));
    } else if (front_live_) {
      return Result::kNoMoreNow;  // a last line without its newline waits for it
    }
    // The end of a complete file: what is left is its last line.
    CloseCurrent();
    queue_.pop_front();
    if (end_ > begin_ || in_long_line_) {
      *line = {buffer + begin_, end_ - begin_, false};
      begin_ = end_ = scanned_ = 0;
      in_long_line_ = false;
      return Result::kLine;
    }
  }
}

}  // namespace zelctl
