#include "net_commands.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>

#include "cli_support.h"
#include "utils/ip_check.h"

namespace zelctl {
namespace {

bool IsIpv4(const std::string& text) {
  in_addr address = {};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

long long MillisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start)
      .count();
}

void PrintReachability(const std::string& what, const std::string& ip, int port, bool reachable,
                       long long elapsed_ms, bool json) {
  if (json) {
    Json::Value value(Json::objectValue);
    value["check"] = what;
    value["ip"] = ip;
    if (port > 0) value["port"] = port;
    value["reachable"] = reachable;
    value["elapsed_ms"] = static_cast<Json::Int64>(elapsed_ms);
    PrintJson(value);
  } else {
    const std::string target = port > 0 ? ip + ":" + std::to_string(port) : ip;
    std::printf("%s %s (%s, %lld ms)\n", target.c_str(), reachable ? "reachable" : "unreachable",
                what.c_str(), elapsed_ms);
  }
}

// The library's ICMP check needs a raw socket: superuser rights on macOS,
// and root or CAP_NET_RAW on Linux. 0 when one can be had, else errno.
int RawIcmpSocketError() {
  const int fd = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
  if (fd < 0) return errno;
  close(fd);
  return 0;
}

// The library waits for any ICMP packet without a time-out of its own, so
// the check runs in a child that a timer ends: -1 when it was cut short.
int IcmpCheckInChild(const std::string& ip, int timeout_ms, int retries, long long deadline_ms) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) return -2;
  if (child == 0) {
    struct itimerval limit = {};
    limit.it_value.tv_sec = static_cast<time_t>(deadline_ms / 1000);
    limit.it_value.tv_usec = static_cast<suseconds_t>(deadline_ms % 1000 * 1000);
    signal(SIGALRM, SIG_DFL);
    setitimer(ITIMER_REAL, &limit, nullptr);
    bool reachable = false;
    {
      QuietStdStreams quiet;
      reachable = check_ip_by_icmp(ip, timeout_ms, retries);
    }
    _exit(reachable ? 0 : 1);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -2;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status) == 0 ? 1 : 0;
  return -1;
}

}  // namespace

int RunProbe(const std::string& ip, int port, bool json) {
  if (!IsIpv4(ip)) {
    ReportError("IP: not an IPv4 address: " + ip);
    return kExitUsage;
  }
  if (port < 1 || port > 65535) {
    ReportError("PORT: not in 1-65535: " + std::to_string(port));
    return kExitUsage;
  }
  const auto start = std::chrono::steady_clock::now();
  bool reachable = false;
  {
    QuietStdStreams quiet;  // the check's debug notes are not the answer
    reachable = check_ip_port(ip, port);
  }
  PrintReachability("tcp", ip, port, reachable, MillisecondsSince(start), json);
  return reachable ? kExitOk : kExitNegative;
}

int RunPing(const std::string& ip, int timeout_ms, int retries, bool json) {
  if (!IsIpv4(ip)) {
    ReportError("IP: not an IPv4 address: " + ip);
    return kExitUsage;
  }
  if (const int error = RawIcmpSocketError()) {
    if (error == EPERM || error == EACCES) {
      ReportError("ping needs the superuser (a raw ICMP socket: " +
                  std::string(std::strerror(error)) + "); run it with sudo, or use probe IP PORT");
    } else {
      ReportError(WithErrno("cannot open a raw ICMP socket", error));
    }
    return kExitIo;
  }
  // Each attempt may wait timeout_ms; a failed send also pauses half a second.
  const long long deadline_ms = static_cast<long long>(retries + 1) * (timeout_ms + 500);
  const auto start = std::chrono::steady_clock::now();
  const int result = IcmpCheckInChild(ip, timeout_ms, retries, deadline_ms);
  if (result == -2) {
    ReportError(WithErrno("cannot run the ICMP check", errno));
    return kExitIo;
  }
  const bool reachable = result == 1;
  PrintReachability("icmp", ip, 0, reachable, MillisecondsSince(start), json);
  return reachable ? kExitOk : kExitNegative;
}

}  // namespace zelctl
