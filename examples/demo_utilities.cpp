#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "demo.h"
#include "utils/file_operation.h"
#include "utils/ip_check.h"
#include "utils/string_utils.h"

namespace {

using demo::Say;

// A listening socket on 127.0.0.1 with a port chosen by the system; -1 on failure.
int ListenOnLoopback(int* port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      listen(fd, 4) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    if (fd >= 0) close(fd);
    return -1;
  }
  *port = ntohs(addr.sin_port);
  return fd;
}

// One printer chunk as the peer sends it (little-endian header, then data).
std::vector<unsigned char> PrinterChunk(const std::string& path, uint64_t total, uint64_t offset,
                                        const std::string& data) {
  std::vector<unsigned char> chunk;
  auto put = [&chunk](uint64_t value, int size) {
    for (int i = 0; i < size; ++i) chunk.push_back(static_cast<unsigned char>(value >> (8 * i)));
  };
  put(7, 2);  // id1
  put(2, 2);  // id2
  chunk.push_back(static_cast<unsigned char>(path.size()));
  chunk.insert(chunk.end(), path.begin(), path.end());
  put(total, 8);
  put(offset, 8);
  chunk.insert(chunk.end(), data.begin(), data.end());
  return chunk;
}

void ProbePorts() {
  int port = 0;
  const int listener = ListenOnLoopback(&port);
  if (listener < 0) {
    Say("  could not listen on 127.0.0.1");
    return;
  }
  Say("  check_ip_port(127.0.0.1, %d) while listening: %s", port,
      check_ip_port("127.0.0.1", port) ? "reachable" : "unreachable");
  close(listener);
  Say("  check_ip_port(127.0.0.1, %d) after closing:   %s", port,
      check_ip_port("127.0.0.1", port) ? "reachable" : "unreachable");
  Say("  check_ip_by_icmp(127.0.0.1, 1000 ms, 2 retries): %s",
      check_ip_by_icmp("127.0.0.1", 1000, 2) ? "answered" : "no answer (needs superuser)");
}

void SavePrintJob() {
  const std::string name = "zel_demo_job_" + std::to_string(getpid()) + ".prn";
  const std::string path = "C:\\spool\\" + name;
  const std::string parts[] = {"%!PS page one\n", "page two\n", "%%EOF\n"};
  const uint64_t total = parts[0].size() + parts[1].size() + parts[2].size();
  const uint64_t offsets[] = {0, parts[0].size(), parts[0].size() + parts[1].size()};
  std::string local_name;
  for (int i : {2, 0, 1}) {  // the network delivered them out of order
    std::vector<unsigned char> chunk = PrinterChunk(path, total, offsets[i], parts[i]);
    const int rc = zel::SavePrinterFile(static_cast<unsigned int>(chunk.size()), chunk.data(),
                                        "demo_", local_name);
    Say("  chunk at offset %llu: SavePrinterFile -> %d",
        static_cast<unsigned long long>(offsets[i]), rc);
  }
  const std::string written = "/tmp/" + name;
  std::ifstream in(written, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  Say("  local name reported: %s", local_name.c_str());
  Say("  %s holds %lld bytes (expected %llu), in order: %s", written.c_str(),
      zel::getFileSize(written.c_str()), static_cast<unsigned long long>(total),
      text.str() == parts[0] + parts[1] + parts[2] ? "yes" : "no");
  Say("  cleaned up: %s", zel::deleteFile(written.c_str()) ? "yes" : "no");
}

void ParseStrings() {
  std::string key, value;
  parse_string_kv("printer=office-2f", "=", key, value);
  Say("  parse_string_kv: key=%s value=%s", key.c_str(), value.c_str());
  Say("  split_strings(\"usb,,camera,pen\", \",\"): %zu fields",
      split_strings("usb,,camera,pen", ",").size());
  std::string inner;
  get_brackets_value(inner, "dev(vid[0x1d6b])", '(', ')', '\0');
  Say("  get_brackets_value: %s, balanced: %s, zel_htoi(\"0x1d6b\")=%d", inner.c_str(),
      check_brackets(inner.c_str()) ? "yes" : "no", zel_htoi("0x1d6b"));
}

}  // namespace

void demo::Utilities() {
  Section("string helpers, printer files, reachability");
  ParseStrings();
  SavePrintJob();
  ProbePorts();
}
