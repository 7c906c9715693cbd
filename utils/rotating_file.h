/// @file
/// The layout of RotatingFile (held by value by LoggerFile) is ABI: clients allocate these objects,
/// so their size and the places of their public members stay (abi/libzel_utils.abi;
/// docs/architecture.md).
///
/// The file a log writer appends to, and the rotation by which the process log
/// (Logger) and named logs (LoggerFile) move it aside and clean up after it.
/// Internal to those two classes; installed because LoggerFile holds one.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

namespace zel {
namespace logdetail {

// Log paths live in buffers of this size: 255 characters and a terminator.
constexpr size_t kPathSize = 256;

bool IsDirectory(const char* path);
bool IsRegularFile(const char* path);
// Creates every missing directory along `dir` (mkdir 0755), stopping with
// "mkdir error,[%s]\n" at the first failure. Paths over 255 characters are left alone.
void MakeDirectoryChain(const std::string& dir);
// How one writer names its files: the first `dirLen` characters of `dir`,
// then "<stem>.<timeTag>.txt" for the current file and "<stem>.<timeTag>.<n>"
// for rotation n. Every name is cut to 255 characters.
struct FileNaming {
  const std::string& dir;
  size_t dirLen;
  std::string stem;
  const std::string& timeTag;
};

// The current file's name of `naming` (cut to 255 characters), as
// RotatingFile::NameCurrent makes it, without reporting a cut.
std::string CurrentFileName(const FileNaming& naming);

// The open file of one writer, its path and the number its next rotation
// gets (0 at first, +1 per rotation, wrapping at 256, never reset).
// Writer thread only. Names cut to 255 characters may coincide: it never
// renames a file onto itself nor deletes the file it writes, and it reports
// the first cut name once on standard output
// ("log file name cut to 255 characters: [%s]\n").
struct RotatingFile {
  // The file must be moved aside: its position is past `maxSize` (read as a
  // 32-bit int, as it always was) or its path no longer names a regular file
  // (removed or moved away). One lookup of the path answers both while the
  // path names this file and its size is what this writer made it; anything
  // else also asks the descriptor for its position. `position` receives the
  // position (when the path still names a regular file).
  bool MustRotate(int32_t maxSize, long* position);
  // The writer appends `bytes` more (written with the next write).
  void Advance(size_t bytes);
  // A write failed: what the file holds is no longer known.
  void LostTrack();
  // The file's size if only this writer wrote to it since the last check,
  // counting what it advanced; -1 when unknown.
  long KnownSize() const { return expectedSize; }
  // Closes the file and renames it to rotation number `index`, inside
  // naming's directory, leaving that name in `rotated`; a failed rename
  // prints "%s %d,rename error\n" with "getFile" and `renameErrorLine` and
  // still counts. Then advances `index`.
  void RotateOut(const FileNaming& naming, int renameErrorLine, char (&rotated)[kPathSize]);
  // Deletes the rotation numbered `index` - `keep` (mod 256) if it is a
  // regular file other than `path`, printing "delete file: %s failed\n"
  // when that fails.
  void RemoveExpired(const FileNaming& naming, uint8_t index, uint32_t keep);
  // Sets `path` to the current file's name.
  void NameCurrent(const FileNaming& naming);
  // Opens `path` for appending; null on failure. Lines are written through
  // the descriptor (fileno), never buffered in the stream.
  FILE* Open();
  // Closes the file, if open.
  void Close();

  FILE* fp = nullptr;
  char path[kPathSize] = {};
  uint8_t index = 0;

 private:
  // Formats a name of `naming` into `out` ("<stem>.<timeTag>.<last>"),
  // reporting the first one that had to be cut.
  void Name(char (&out)[kPathSize], const FileNaming& naming, const char* last);

  bool cutReported = false;
  // Which file `fp` is, and the size it has if only this writer appended to
  // it since it was opened; -1 when unknown (a failed write).
  dev_t device = 0;
  ino_t inode = 0;
  long expectedSize = -1;
};

}  // namespace logdetail
}  // namespace zel
