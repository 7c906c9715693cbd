#include "utils/ip_check.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/clock.h"
#include "support/diag_capture.h"
#include "support/files.h"

namespace {

using zeltest::DiagCapture;

// Diagnostics of this test only, also when several tests share a process.
struct Diagnostics : DiagCapture {
  Diagnostics() { Clear(); }
};
using Clock = std::chrono::steady_clock;
using Packet = std::vector<unsigned char>;

constexpr size_t kEchoSize = 28;

// The library's socket calls are interposed by this test program (definitions
// at the end) so that tests can steer them:
// - gRewriteIdentifier >= 0: echo requests leave with this identifier instead
//   of the caller's (checksum fixed up), so the replies belong to "another
//   process's ping";
// - gFailSends / gFailReceives: sendto / recvfrom fail with -1;
// - setsockopt calls at SOL_SOCKET with option 0x1007 are recorded.
std::atomic<int> gRewriteIdentifier{-1};
std::atomic<bool> gFailSends{false};
std::atomic<bool> gFailReceives{false};
// How connect answers: as the system does, done at once (0), or refused at
// once with this errno.
enum class ConnectMode { kSystem, kAtOnce, kFailAtOnce };
std::atomic<ConnectMode> gConnectMode{ConnectMode::kSystem};

struct SockoptCall {
  int result;
  socklen_t length;
  timeval value;
};
std::vector<SockoptCall> gTimeoutOptionCalls;  // test thread only

// --- independent ICMP helpers ---

// RFC 1071 over big-endian 16-bit words; returns the checksum in host order.
uint16_t ReferenceChecksum(const unsigned char* data, size_t size) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < size; i += 2) sum += (data[i] << 8) | data[i + 1];
  while (sum >> 16) sum = (sum >> 16) + (sum & 0xFFFF);
  return static_cast<uint16_t>(~sum & 0xFFFF);
}

uint16_t OwnIdentifier() { return static_cast<uint16_t>(getpid() & 0xFFFF); }

// The echo request the library must send, built field by field.
Packet ExpectedEchoRequest(uint16_t identifier) {
  Packet p(kEchoSize, 0);
  p[0] = 8;
  p[4] = static_cast<unsigned char>(identifier >> 8);
  p[5] = static_cast<unsigned char>(identifier & 0xFF);
  const uint16_t checksum = ReferenceChecksum(p.data(), p.size());
  p[2] = static_cast<unsigned char>(checksum >> 8);
  p[3] = static_cast<unsigned char>(checksum & 0xFF);
  return p;
}

uint16_t IdentifierOf(const Packet& icmp) {
  return static_cast<uint16_t>((icmp[4] << 8) | icmp[5]);
}

// A raw ICMP socket opened before the call under test: afterwards it holds
// every ICMP message that crossed loopback meanwhile.
class IcmpSniffer {
 public:
  IcmpSniffer() : fd_(socket(AF_INET, SOCK_RAW, IPPROTO_ICMP)) {}
  ~IcmpSniffer() {
    if (fd_ >= 0) close(fd_);
  }
  IcmpSniffer(const IcmpSniffer&) = delete;
  IcmpSniffer& operator=(const IcmpSniffer&) = delete;
  bool ok() const { return fd_ >= 0; }

  // ICMP messages (IPv4 header stripped) of `type` with `identifier`.
  std::vector<Packet> Drain(uint8_t type, uint16_t identifier) {
    std::vector<Packet> matching;
    unsigned char buf[1500];
    for (;;) {
      const ssize_t n = recv(fd_, buf, sizeof(buf), MSG_DONTWAIT);
      if (n <= 0) break;
      const size_t ip_header = static_cast<size_t>(buf[0] & 0x0F) * 4;
      if (static_cast<size_t>(n) < ip_header + 8) continue;
      Packet icmp(buf + ip_header, buf + n);
      if (icmp[0] == type && IdentifierOf(icmp) == identifier) matching.push_back(icmp);
    }
    return matching;
  }

 private:
  int fd_;
};

#define REQUIRE_ROOT()                                                     \
  do {                                                                     \
    if (geteuid() != 0) GTEST_SKIP() << "raw ICMP sockets need superuser"; \
  } while (0)

// --- TCP helpers ---

// A socket bound to 127.0.0.1 on a free port, listening when `backlog` >= 0.
class LoopbackSocket {
 public:
  explicit LoopbackSocket(int backlog) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    EXPECT_EQ(0, bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    EXPECT_EQ(0, getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len));
    port_ = ntohs(addr.sin_port);
    if (backlog >= 0) {
      EXPECT_EQ(0, listen(fd_, backlog));
    }
  }
  ~LoopbackSocket() {
    for (int fd : clients_) close(fd);
    close(fd_);
  }
  LoopbackSocket(const LoopbackSocket&) = delete;
  LoopbackSocket& operator=(const LoopbackSocket&) = delete;
  int port() const { return port_; }

  // Starts a connection that is never accepted; true once it is established
  // (it then sits in the accept queue).
  bool ConnectPending(double wait_s) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    clients_.push_back(fd);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port_));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(fd, &writable);
    const auto wait_us = static_cast<long long>(wait_s * 1e6);
    timeval timeout{static_cast<time_t>(wait_us / 1000000),
                    static_cast<suseconds_t>(wait_us % 1000000)};
    return select(fd + 1, nullptr, &writable, nullptr, &timeout) == 1;
  }

 private:
  int fd_;
  int port_ = 0;
  std::vector<int> clients_;
};

using zeltest::OpenDescriptorCount;
using zeltest::SecondsSince;

// --- check_ip_port ---

TEST(IpCheckPort, AcceptingListenerIsReachable) {
  LoopbackSocket listener(16);
  EXPECT_TRUE(check_ip_port("127.0.0.1", listener.port()));
}

TEST(IpCheckPort, RefusedPortIsUnreachable) {
  LoopbackSocket bound_only(-1);  // holds the port, answers SYN with RST
  const auto start = Clock::now();
  EXPECT_FALSE(check_ip_port("127.0.0.1", bound_only.port()));
  EXPECT_LT(SecondsSince(start), 0.9);  // refused at once, not timed out
}

TEST(IpCheckPort, FullAcceptQueueTimesOutAfterOneSecond) {
  // Backlog 0 admits one established connection on Linux; once it sits there
  // unaccepted, further SYNs are dropped, so the probe's connect hangs.
  LoopbackSocket listener(0);
  ASSERT_TRUE(listener.ConnectPending(5.0));
  const auto start = Clock::now();
  EXPECT_FALSE(check_ip_port("127.0.0.1", listener.port()));
  const double elapsed = SecondsSince(start);
  EXPECT_GE(elapsed, 0.95);
  EXPECT_LT(elapsed, 10.0);
}

TEST(IpCheckPort, OnlyTheLow16BitsOfThePortCount) {
  LoopbackSocket listener(16);
  EXPECT_TRUE(check_ip_port("127.0.0.1", listener.port() + 65536));
}

TEST(IpCheckPort, EveryOutcomeClosesItsSocket) {
  LoopbackSocket listener(16);
  LoopbackSocket bound_only(-1);
  const size_t before = OpenDescriptorCount();
  EXPECT_TRUE(check_ip_port("127.0.0.1", listener.port()));
  EXPECT_EQ(before, OpenDescriptorCount()) << "after a reachable probe";
  EXPECT_FALSE(check_ip_port("127.0.0.1", bound_only.port()));
  EXPECT_EQ(before, OpenDescriptorCount()) << "after a refused probe";
}

TEST(IpCheckPort, DiagnosticsFrameTheProbeWithLiteralBackslashN) {
  LoopbackSocket listener(16);
  Diagnostics diag;
  ASSERT_TRUE(check_ip_port("127.0.0.1", listener.port()));
  const std::string port = std::to_string(listener.port());
  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(5, lines[0].level);
  EXPECT_EQ(0u, lines[0].text.rfind("ip_check.cpp check_ip_port(", 0));
  EXPECT_NE(std::string::npos,
            lines[0].text.find("\"Debug:\" \"ip=127.0.0.1 port=" + port + " .......\\n\""));
  EXPECT_EQ(5, lines[1].level);
  EXPECT_NE(std::string::npos,
            lines[1].text.find("\"Debug:\" \"ip=127.0.0.1 port=" + port + " ....... end\\n\""));
}

TEST(IpCheckPort, RefusalAlsoEndsWithEndDiagnostic) {
  LoopbackSocket bound_only(-1);
  Diagnostics diag;
  EXPECT_FALSE(check_ip_port("127.0.0.1", bound_only.port()));
  EXPECT_EQ(1u, DiagCapture::Count(" ....... end\\n\""));
}

TEST(IpCheckPort, TextThatIsNotAnAddressTriesZeroAddress) {
  // 0.0.0.0 as a destination means this host on Linux: a loopback listener answers.
  LoopbackSocket listener(16);
  EXPECT_TRUE(check_ip_port("not-an-address", listener.port()));
}

TEST(IpCheckPort, SocketCreationFailureIsDebugDiagnostic) {
  rlimit saved;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
  rlimit none = saved;
  none.rlim_cur = 0;  // every new descriptor fails with EMFILE
  Diagnostics diag;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  const bool reachable = check_ip_port("127.0.0.1", 9);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
  EXPECT_FALSE(reachable);
  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(5, lines[0].level);
  EXPECT_NE(std::string::npos,
            lines[0].text.find("\"Debug:\" \"create socket error: " +
                               std::string(std::strerror(EMFILE)) + "(errno: 24)\\n\""));
}

// Holds every descriptor below `floor`, so that the next socket gets a
// number at or above it (the client's processes hold many descriptors).
class DescriptorsBelow {
 public:
  explicit DescriptorsBelow(int floor) {
    EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved_));
    rlimit more = saved_;
    const rlim_t wanted = static_cast<rlim_t>(floor) + 64;
    if (more.rlim_cur < wanted) more.rlim_cur = wanted;
    if (more.rlim_max < wanted) more.rlim_max = wanted;  // root may raise it
    EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &more)) << std::strerror(errno);
    for (;;) {
      const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
      if (fd < 0) break;
      held_.push_back(fd);
      if (fd >= floor - 1) break;
    }
  }
  ~DescriptorsBelow() {
    for (int fd : held_) close(fd);
    setrlimit(RLIMIT_NOFILE, &saved_);
  }
  // The number the next descriptor will get.
  static int Next() {
    const int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
  }

 private:
  rlimit saved_{};
  std::vector<int> held_;
};

TEST(IpCheckPort, SocketNumberAbove1024IsWaitedForLikeAnyOther) {
  LoopbackSocket listener(16);
  LoopbackSocket bound_only(-1);
  DescriptorsBelow busy(1030);
  ASSERT_GE(DescriptorsBelow::Next(), 1030);
  EXPECT_TRUE(check_ip_port("127.0.0.1", listener.port()));
  EXPECT_FALSE(check_ip_port("127.0.0.1", bound_only.port()));
  EXPECT_EQ(1030, DescriptorsBelow::Next());  // both probes closed their socket
}

TEST(IpCheckPort, SocketNumberAbove1024StillTimesOutAfterOneSecond) {
  LoopbackSocket listener(0);
  ASSERT_TRUE(listener.ConnectPending(5.0));
  DescriptorsBelow busy(1030);
  const auto start = Clock::now();
  EXPECT_FALSE(check_ip_port("127.0.0.1", listener.port()));
  const double elapsed = SecondsSince(start);
  EXPECT_GE(elapsed, 0.95);
  EXPECT_LT(elapsed, 10.0);
}

TEST(IpCheckPort, ConnectionMadeAtOnceIsReachable) {
  LoopbackSocket listener(16);
  gConnectMode = ConnectMode::kAtOnce;
  const bool reachable = check_ip_port("127.0.0.1", listener.port());
  gConnectMode = ConnectMode::kSystem;
  EXPECT_TRUE(reachable);
}

TEST(IpCheckPort, ConnectFailingAtOnceIsUnreachableWithoutWaiting) {
  LoopbackSocket listener(16);
  Diagnostics diag;
  gConnectMode = ConnectMode::kFailAtOnce;
  const auto start = Clock::now();
  const bool reachable = check_ip_port("127.0.0.1", listener.port());
  gConnectMode = ConnectMode::kSystem;
  EXPECT_FALSE(reachable);
  EXPECT_LT(SecondsSince(start), 0.5);
  EXPECT_EQ(1u, DiagCapture::Count(" ....... end\\n\""));
}

// --- check_ip_by_icmp ---

TEST(IpCheckIcmp, EchoRequestMatchesIndependentlyBuiltOne) {
  REQUIRE_ROOT();
  IcmpSniffer sniffer;
  ASSERT_TRUE(sniffer.ok());
  check_ip_by_icmp("127.0.0.1", 1000, 0);
  const auto requests = sniffer.Drain(8, OwnIdentifier());
  ASSERT_EQ(1u, requests.size());
  EXPECT_EQ(ExpectedEchoRequest(OwnIdentifier()), requests[0]);
  // Only two words are non-zero: 0x0800 (type, code) and the identifier.
  uint32_t sum = 0x0800u + OwnIdentifier();
  sum = (sum >> 16) + (sum & 0xFFFF);
  EXPECT_EQ(static_cast<uint16_t>(~sum), (requests[0][2] << 8) | requests[0][3]);
  EXPECT_EQ(0, ReferenceChecksum(requests[0].data(), requests[0].size()));  // verifies
}

TEST(IpCheckIcmp, ReferenceChecksumOfAKnownRequest) {
  // Identifier 0x1234: words 0x0800 + 0x1234 = 0x1A34, complement 0xE5CB.
  const Packet request = ExpectedEchoRequest(0x1234);
  EXPECT_EQ(0xE5, request[2]);
  EXPECT_EQ(0xCB, request[3]);
}

TEST(IpCheckIcmp, TimeoutGoesToOption0x1007AsTimeval) {
  REQUIRE_ROOT();
  gTimeoutOptionCalls.clear();
  check_ip_by_icmp("127.0.0.1", 2500, 1);
  ASSERT_EQ(1u, gTimeoutOptionCalls.size());
  EXPECT_EQ(static_cast<socklen_t>(sizeof(timeval)), gTimeoutOptionCalls[0].length);
  EXPECT_EQ(2, gTimeoutOptionCalls[0].value.tv_sec);
  EXPECT_EQ(500000, gTimeoutOptionCalls[0].value.tv_usec);
  EXPECT_EQ(-1, gTimeoutOptionCalls[0].result);  // not a receive time-out: it fails
}

TEST(IpCheckIcmp, FailedSendIsReportedAndPausesHalfASecond) {
  REQUIRE_ROOT();
  Diagnostics diag;
  gFailSends = true;
  const auto start = Clock::now();
  const bool replied = check_ip_by_icmp("127.0.0.1", 1000, 1);
  const double elapsed = SecondsSince(start);
  gFailSends = false;
  EXPECT_FALSE(replied);
  EXPECT_EQ(2u, DiagCapture::Count("\"Error:\" \"Failed to send ICMP Echo Request\""));
  EXPECT_EQ(2u, DiagCapture::Count("ip_check.cpp check_ip_by_icmp("));
  EXPECT_GE(elapsed, 0.95);  // two attempts, half a second each
  EXPECT_LT(elapsed, 10.0);
}

TEST(IpCheckIcmp, FailedReceiveIsReportedWithoutPause) {
  REQUIRE_ROOT();
  Diagnostics diag;
  gFailReceives = true;
  const auto start = Clock::now();
  const bool replied = check_ip_by_icmp("127.0.0.1", 1000, 2);
  const double elapsed = SecondsSince(start);
  gFailReceives = false;
  EXPECT_FALSE(replied);
  EXPECT_EQ(3u, DiagCapture::Count("\"Error:\" \"Failed to receive ICMP Echo Reply\""));
  EXPECT_EQ(3u, DiagCapture::Count("ip_check.cpp check_ip_by_icmp("));
  EXPECT_LT(elapsed, 1.4);  // three half-second pauses would take 1.5 s
}

TEST(IpCheckIcmp, ZeroRetriesMakesExactlyOneAttempt) {
  REQUIRE_ROOT();
  IcmpSniffer sniffer;
  ASSERT_TRUE(sniffer.ok());
  // On loopback the socket receives this host's own request before the
  // reply; with a single attempt that packet decides, and it is no reply.
  EXPECT_FALSE(check_ip_by_icmp("127.0.0.1", 1000, 0));
  EXPECT_EQ(1u, sniffer.Drain(8, OwnIdentifier()).size());
}

TEST(IpCheckIcmp, TwoRetriesMakeAtMostThreeAttempts) {
  REQUIRE_ROOT();
  IcmpSniffer sniffer;
  ASSERT_TRUE(sniffer.ok());
  check_ip_by_icmp("127.0.0.1", 1000, 2);
  const size_t sent = sniffer.Drain(8, OwnIdentifier()).size();
  EXPECT_GE(sent, 2u);  // the first attempt always meets the own request
  EXPECT_LE(sent, 3u);
}

TEST(IpCheckIcmp, EveryAttemptSendsTheSameRequest) {
  REQUIRE_ROOT();
  IcmpSniffer sniffer;
  ASSERT_TRUE(sniffer.ok());
  gFailReceives = true;  // each attempt fails at once, so all three are made
  const bool replied = check_ip_by_icmp("127.0.0.1", 1000, 2);
  gFailReceives = false;
  EXPECT_FALSE(replied);
  const auto requests = sniffer.Drain(8, OwnIdentifier());
  ASSERT_EQ(3u, requests.size());
  for (const auto& request : requests) EXPECT_EQ(ExpectedEchoRequest(OwnIdentifier()), request);
}

TEST(IpCheckIcmp, EveryOutcomeClosesItsSocket) {
  REQUIRE_ROOT();
  const size_t before = OpenDescriptorCount();
  EXPECT_FALSE(check_ip_by_icmp("300.1.1.1", 1000, 1));
  EXPECT_EQ(before, OpenDescriptorCount()) << "after an address it refused";
  EXPECT_FALSE(check_ip_by_icmp("127.0.0.1", 1000, -1));
  EXPECT_EQ(before, OpenDescriptorCount()) << "after no attempt";
  gFailReceives = true;
  EXPECT_FALSE(check_ip_by_icmp("127.0.0.1", 1000, 1));
  gFailReceives = false;
  EXPECT_EQ(before, OpenDescriptorCount()) << "after failed attempts";
  EXPECT_TRUE(check_ip_by_icmp("127.0.0.1", 1000, 20));
  EXPECT_EQ(before, OpenDescriptorCount()) << "after a reply";
}

TEST(IpCheckIcmp, LoopbackAnswersWithinRetries) {
  REQUIRE_ROOT();
  // Generous retries: ICMP traffic of other processes also takes attempts.
  EXPECT_TRUE(check_ip_by_icmp("127.0.0.1", 1000, 20));
}

TEST(IpCheckIcmp, NegativeRetriesSendNothing) {
  REQUIRE_ROOT();
  IcmpSniffer sniffer;
  ASSERT_TRUE(sniffer.ok());
  Diagnostics diag;
  EXPECT_FALSE(check_ip_by_icmp("127.0.0.1", 1000, -1));
  EXPECT_TRUE(sniffer.Drain(8, OwnIdentifier()).empty());
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST(IpCheckIcmp, ReplyWithAnotherIdentifierFailsTheAttempt) {
  REQUIRE_ROOT();
  const uint16_t other = static_cast<uint16_t>(OwnIdentifier() ^ 0x5A5A);
  IcmpSniffer sniffer;
  ASSERT_TRUE(sniffer.ok());
  gRewriteIdentifier = other;
  const bool replied = check_ip_by_icmp("127.0.0.1", 1000, 3);
  gRewriteIdentifier = -1;
  EXPECT_FALSE(replied);
  // Every attempt was made, and the host did answer each one, to `other`.
  EXPECT_EQ(4u, sniffer.Drain(8, other).size());
}

TEST(IpCheckIcmp, InvalidAddressTextIsRefused) {
  REQUIRE_ROOT();
  Diagnostics diag;
  EXPECT_FALSE(check_ip_by_icmp("300.1.1.1", 1000, 0));
  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(7, lines[0].level);
  EXPECT_EQ(0u, lines[0].text.rfind("ip_check.cpp check_ip_by_icmp(", 0));
  EXPECT_NE(std::string::npos, lines[0].text.find("\"Error:\" \"Invalid target IP address\""));
}

// Runs `body` as an unprivileged user (in a child when we are root) and
// returns its exit status.
template <typename Body>
int RunUnprivileged(Body body) {
  if (geteuid() != 0) return body();
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(100);
    _exit(body());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

TEST(IpCheckIcmp, WithoutSuperuserSocketCannotBeCreated) {
  const int status = RunUnprivileged([] {
    Diagnostics diag;
    if (check_ip_by_icmp("127.0.0.1", 1000, 0)) return 1;
    const auto lines = DiagCapture::Lines();
    if (lines.size() != 1 || lines[0].level != 7) return 2;
    if (lines[0].text.find("\"Error:\" \"Failed to create socket\"") == std::string::npos) return 3;
    return 0;
  });
  EXPECT_EQ(0, status);
}

}  // namespace

template <typename Fn>
Fn RealFunction(const char* name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

extern "C" ssize_t sendto(int fd, const void* buf, size_t len, int flags, const sockaddr* to,
                          socklen_t to_len) {
  using SendTo = ssize_t (*)(int, const void*, size_t, int, const sockaddr*, socklen_t);
  static const auto real = RealFunction<SendTo>("sendto");
  if (gFailSends) {
    errno = ENOBUFS;
    return -1;
  }
  const int identifier = gRewriteIdentifier.load();
  if (identifier < 0 || len != kEchoSize) return real(fd, buf, len, flags, to, to_len);
  const Packet rewritten = ExpectedEchoRequest(static_cast<uint16_t>(identifier));
  return real(fd, rewritten.data(), rewritten.size(), flags, to, to_len);
}

extern "C" ssize_t recvfrom(int fd, void* buf, size_t len, int flags, sockaddr* from,
                            socklen_t* from_len) {
  using RecvFrom = ssize_t (*)(int, void*, size_t, int, sockaddr*, socklen_t*);
  static const auto real = RealFunction<RecvFrom>("recvfrom");
  if (gFailReceives) {
    errno = EINTR;
    return -1;
  }
  return real(fd, buf, len, flags, from, from_len);
}

extern "C" int setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
  using SetSockOpt = int (*)(int, int, int, const void*, socklen_t);
  static const auto real = RealFunction<SetSockOpt>("setsockopt");
  const int result = real(fd, level, name, value, length);
  if (level == SOL_SOCKET && name == 0x1007) {
    SockoptCall call{result, length, {}};
    std::memcpy(&call.value, value, std::min<size_t>(length, sizeof(call.value)));
    gTimeoutOptionCalls.push_back(call);
  }
  return result;
}

extern "C" int connect(int fd, const sockaddr* addr, socklen_t len) {
  using Connect = int (*)(int, const sockaddr*, socklen_t);
  static const auto real = RealFunction<Connect>("connect");
  switch (gConnectMode.load()) {
    case ConnectMode::kSystem:
      return real(fd, addr, len);
    case ConnectMode::kAtOnce: {
      // Finish the loopback connection before answering, as a fast peer would.
      const int rc = real(fd, addr, len);
      if (rc != 0 && errno != EINPROGRESS) return rc;
      pollfd done{fd, POLLOUT, 0};
      poll(&done, 1, 5000);
      return 0;
    }
    case ConnectMode::kFailAtOnce:
      errno = ENETUNREACH;
      return -1;
  }
  return -1;
}
