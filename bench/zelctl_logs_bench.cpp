// zelctl logs against the floor (cat of the same files) and against sort -m
// with a key on the time stamp, on a synthetic day directory of P processes x
// F files x S bytes, page cache warm, output to /dev/null. Also reports the
// peak resident size of each run (wait4), at two input sizes, to show that
// zelctl's does not grow with the input.
//
//   zelctl_logs_bench [--zelctl PATH] [--runs N] [--small-only]
#include <fcntl.h>
#include <ftw.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#ifndef ZELCTL_BINARY
#define ZELCTL_BINARY ""
#endif

namespace {

constexpr int kProcesses = 10;
constexpr int kFilesPerProcess = 10;  // 9 rotated + the current one
constexpr char kDay[] = "20261115";

struct RunResult {
  double seconds = 0;
  long max_rss_kib = 0;
  int status = -1;
};

// Runs argv with stdout on `out_fd` (stdin and stderr: /dev/null and ours).
RunResult Run(const std::vector<std::string>& args, int out_fd) {
  std::vector<char*> argv;
  std::vector<std::string> copy = args;
  for (std::string& a : copy) argv.push_back(a.data());
  argv.push_back(nullptr);
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) {
    dup2(out_fd, 1);
    setenv("LC_ALL", "C", 1);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  RunResult result;
  struct rusage usage = {};
  wait4(child, &result.status, 0, &usage);
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  result.max_rss_kib = usage.ru_maxrss;
  return result;
}

// One process's lines: stamps rise through the day in steps of 0-40 ms, so
// processes interleave finely and some stamps are equal across processes.
void Generate(const std::string& dir, size_t file_size, std::vector<std::string>* files,
              size_t* total_bytes, size_t* total_lines) {
  mkdir(dir.c_str(), 0755);
  const char* words[] = {"usb",   "attach", "device",  "redirect", "camera", "printer",
                         "chunk", "offset", "vid",     "pid",      "status", "ok",
                         "retry", "server", "session", "policy",   "class",  "0x1d6b"};
  for (int p = 0; p < kProcesses; ++p) {
    std::mt19937 random(1234 + p);
    std::string tag = "proc" + std::to_string(p) + "-" + std::to_string(4000 + p * 17);
    long long ms = 8 * 3600 * 1000LL;  // 08:00
    const std::string tid = std::to_string(140245678901000ULL + p * 1000 + 7);
    for (int f = 0; f < kFilesPerProcess; ++f) {
      const std::string suffix = f + 1 < kFilesPerProcess ? std::to_string(f) : "txt";
      const std::string path = dir + "zel.log." + tag + ".080000." + suffix;
      std::string content;
      content.reserve(file_size + 256);
      char line[512];
      while (content.size() < file_size) {
        ms += random() % 41;
        const long long t = ms % (24 * 3600 * 1000LL);
        int n = std::snprintf(line, sizeof(line), "[11-15 %02lld:%02lld:%02lld.%03lld][tid:%s] ",
                              t / 3600000, t / 60000 % 60, t / 1000 % 60, t % 1000, tid.c_str());
        const int words_in_line = 6 + static_cast<int>(random() % 10);
        for (int w = 0; w < words_in_line; ++w) {
          n += std::snprintf(line + n, sizeof(line) - static_cast<size_t>(n), "%s%s=%u",
                             w ? " " : "", words[random() % 18],
                             static_cast<unsigned>(random() % 100000));
        }
        line[n++] = '\n';
        content.append(line, static_cast<size_t>(n));
        ++*total_lines;
      }
      const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd < 0 ||
          write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        std::perror(path.c_str());
        std::exit(1);
      }
      close(fd);
      files->push_back(path);
      *total_bytes += content.size();
    }
  }
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

long Max(const std::vector<long>& values) {
  return *std::max_element(values.begin(), values.end());
}

// Lines that zelctl writes for the whole day (a check that the run is a full merge).
size_t CountOutputLines(const std::vector<std::string>& args) {
  int fds[2];
  if (pipe(fds) != 0) return 0;
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    dup2(fds[1], 1);
    std::vector<char*> argv;
    std::vector<std::string> copy = args;
    for (std::string& a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(fds[1]);
  size_t lines = 0;
  char buffer[1 << 16];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof(buffer))) > 0;) {
    lines += static_cast<size_t>(std::count(buffer, buffer + n, '\n'));
  }
  close(fds[0]);
  waitpid(child, nullptr, 0);
  return lines;
}

void Measure(const std::string& zelctl, size_t file_size, int runs) {
  char pattern[] = "/tmp/zelctl-bench.XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    std::perror("mkdtemp");
    std::exit(1);
  }
  const std::string base = std::string(pattern) + "/";
  std::vector<std::string> files;
  size_t bytes = 0, lines = 0;
  std::fprintf(stderr, "generating %d x %d x %zu bytes under %s\n", kProcesses, kFilesPerProcess,
               file_size, base.c_str());
  Generate(base + kDay + "/", file_size, &files, &bytes, &lines);
  // A forked child starts with this process's resident pages, and wait4's
  // peak counts them: give the generator's memory back first.
  malloc_trim(0);
  const double mb = static_cast<double>(bytes) / 1e6;

  std::vector<std::string> cat = {"cat"};
  cat.insert(cat.end(), files.begin(), files.end());
  std::vector<std::string> sort = {
      "sort", "-m", "-s", "-t", "]", "-k1,1", "--batch-size=" + std::to_string(files.size())};
  sort.insert(sort.end(), files.begin(), files.end());
  const std::vector<std::string> logs = {zelctl, "logs", "--base", base, "--day", kDay};

  const size_t merged = CountOutputLines(logs);
  const int null_fd = open("/dev/null", O_WRONLY);
  Run(cat, null_fd);  // warms the page cache
  std::vector<double> t_cat, t_sort, t_logs;
  std::vector<long> rss_cat, rss_sort, rss_logs;
  for (int i = 0; i < runs; ++i) {
    RunResult r = Run(cat, null_fd);
    t_cat.push_back(r.seconds);
    rss_cat.push_back(r.max_rss_kib);
    r = Run(sort, null_fd);
    t_sort.push_back(r.seconds);
    rss_sort.push_back(r.max_rss_kib);
    r = Run(logs, null_fd);
    if (!WIFEXITED(r.status) || WEXITSTATUS(r.status) != 0) {
      std::fprintf(stderr, "zelctl logs failed (status %d)\n", r.status);
      std::exit(1);
    }
    t_logs.push_back(r.seconds);
    rss_logs.push_back(r.max_rss_kib);
  }
  close(null_fd);
  const double cat_mbs = mb / Median(t_cat), sort_mbs = mb / Median(t_sort),
               logs_mbs = mb / Median(t_logs);
  std::printf(
      "input: %d processes x %d files x %zu bytes = %.1f MB, %zu lines (zelctl wrote %zu)\n",
      kProcesses, kFilesPerProcess, file_size, mb, lines, merged);
  std::printf("| contender | MB/s (median of %d) | peak RSS KiB | zelctl logs vs it |\n", runs);
  std::printf("|---|---|---|---|\n");
  std::printf("| cat (floor) | %.0f | %ld | x%.2f |\n", cat_mbs, Max(rss_cat), logs_mbs / cat_mbs);
  std::printf("| sort -m -t']' -k1,1 | %.0f | %ld | x%.2f |\n", sort_mbs, Max(rss_sort),
              logs_mbs / sort_mbs);
  std::printf("| zelctl logs | %.0f | %ld | |\n", logs_mbs, Max(rss_logs));
  std::printf(
      "RESULT zelctl.%zu.mb_per_s %.0f\nRESULT zelctl.%zu.vs_cat %.2f\n"
      "RESULT zelctl.%zu.vs_sort %.2f\nRESULT zelctl.%zu.max_rss_kib %ld\n\n",
      file_size, logs_mbs, file_size, logs_mbs / cat_mbs, file_size, logs_mbs / sort_mbs, file_size,
      Max(rss_logs));
  std::fflush(stdout);
  nftw(
      pattern, [](const char* p, const struct stat*, int, struct FTW*) { return std::remove(p); },
      16, FTW_DEPTH | FTW_PHYS);
}

}  // namespace

int main(int argc, char** argv) {
  // Large buffers stay mmapped, so freeing them lowers the resident size.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  std::string zelctl = ZELCTL_BINARY;
  int runs = 3;
  bool small_only = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--zelctl" && i + 1 < argc) {
      zelctl = argv[++i];
    } else if (arg == "--runs" && i + 1 < argc) {
      runs = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--small-only") {
      small_only = true;
    } else {
      std::fprintf(stderr, "usage: %s [--zelctl PATH] [--runs N] [--small-only]\n", argv[0]);
      return 2;
    }
  }
  if (zelctl.empty()) {
    std::fprintf(stderr, "no zelctl binary: pass --zelctl PATH\n");
    return 2;
  }
  Measure(zelctl, 512 * 1024, runs);                        // 10 x 10 x 512 KiB: about 52 MB
  if (!small_only) Measure(zelctl, 5 * 1024 * 1024, runs);  // 10 x 10 x 5 MiB: about 524 MB
  return 0;
}
