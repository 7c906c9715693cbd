#include "utils/ip_check.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "utils/diag.h"

namespace {

constexpr size_t kEchoRequestSize = 28;
constexpr size_t kReplyBufferSize = 64;
constexpr uint8_t kIcmpEchoRequest = 8;
constexpr uint8_t kIcmpEchoReply = 0;
// The receive time-out option as the client has always passed it: 0x1007 is
// SO_ERROR on macOS (SO_RCVTIMEO is 0x1006), so the call fails there.
constexpr int kReceiveTimeoutOption = 0x1007;
constexpr useconds_t kSendFailurePauseUs = 500000;
constexpr int kConnectTimeoutMs = 1000;

// RFC 1071 Internet checksum of an even number of bytes.
uint16_t InternetChecksum(const unsigned char* data, size_t size) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < size; i += 2) {
    uint16_t word;
    std::memcpy(&word, data + i, sizeof(word));  // in memory order, as sent
    sum += word;
  }
  sum = (sum >> 16) + (sum & 0xFFFF);
  sum += sum >> 16;
  return static_cast<uint16_t>(~sum);
}

uint16_t EchoIdentifier() { return htons(static_cast<uint16_t>(getpid() & 0xFFFF)); }

void BuildEchoRequest(unsigned char (&request)[kEchoRequestSize]) {
  std::memset(request, 0, sizeof(request));
  request[0] = kIcmpEchoRequest;
  const uint16_t id = EchoIdentifier();
  std::memcpy(request + 4, &id, sizeof(id));  // sequence and payload stay 0
  const uint16_t checksum = InternetChecksum(request, sizeof(request));
  std::memcpy(request + 2, &checksum, sizeof(checksum));
}

// An echo reply (after its IPv4 header) carrying our identifier. `packet` is
// the whole zero-filled receive buffer: bytes past a short packet read as 0.
bool IsOwnEchoReply(const unsigned char (&packet)[kReplyBufferSize]) {
  const size_t size = sizeof(packet);
  const size_t ip_header = static_cast<size_t>(packet[0] & 0x0F) * 4;
  if (ip_header + 6 > size) return false;
  const unsigned char* icmp = packet + ip_header;
  uint16_t id;
  std::memcpy(&id, icmp + 4, sizeof(id));
  return icmp[0] == kIcmpEchoReply && id == EchoIdentifier();
}

}  // namespace

extern "C" bool check_ip_port(const std::string& ip, int port) {
  const int sock = socket(AF_INET, SOCK_STREAM, 0);
  if (sock < 0) {
    ZEL_DEBUG("create socket error: %s(errno: %d)\\n", std::strerror(errno), errno);
    return false;
  }
  ZEL_DEBUG("ip=%s port=%d .......\\n", ip.c_str(), port);
  const int flags = fcntl(sock, F_GETFL, 0);
  fcntl(sock, F_SETFL, flags | O_NONBLOCK);

  sockaddr_in addr;
  std::memset(&addr, 0, sizeof(addr));  // a failed inet_pton leaves 0.0.0.0
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, ip.c_str(), &addr.sin_addr);

  bool reachable = false;
  const int rc = connect(sock, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
  if (rc == 0 || errno == EINPROGRESS) {
    // poll, not select: a fixed-size fd_set cannot hold descriptors of 1024
    // and above, which busy client processes reach.
    pollfd writable{sock, POLLOUT, 0};
    if (poll(&writable, 1, kConnectTimeoutMs) >= 1) {
      int error = 0;
      socklen_t error_len = sizeof(error);
      getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &error_len);
      if (error == 0) {
        fcntl(sock, F_SETFL, flags);
        reachable = true;
      }
    }
  }
  ZEL_DEBUG("ip=%s port=%d ....... end\\n", ip.c_str(), port);
  close(sock);
  return reachable;
}

extern "C" bool check_ip_by_icmp(const std::string& ip, int timeout_ms, int retries) {
  const int sock = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
  if (sock < 0) {
    ZEL_ERROR("Failed to create socket");
    return false;
  }
  sockaddr_in target;
  std::memset(&target, 0, sizeof(target));
  target.sin_family = AF_INET;
  if (inet_pton(AF_INET, ip.c_str(), &target.sin_addr) <= 0) {
    ZEL_ERROR("Invalid target IP address");
    close(sock);
    return false;
  }
  timeval timeout{timeout_ms / 1000, static_cast<suseconds_t>(timeout_ms % 1000) * 1000};
  setsockopt(sock, SOL_SOCKET, kReceiveTimeoutOption, &timeout, sizeof(timeout));  // fails

  unsigned char request[kEchoRequestSize];
  BuildEchoRequest(request);
  bool replied = false;
  // The attempts stay in this function: its name goes into the diagnostics.
  for (long long attempt = 0; attempt <= retries && !replied; ++attempt) {
    if (sendto(sock, request, sizeof(request), 0, reinterpret_cast<const sockaddr*>(&target),
               sizeof(target)) <= 0) {
      ZEL_ERROR("Failed to send ICMP Echo Request");
      usleep(kSendFailurePauseUs);
      continue;
    }
    unsigned char reply[kReplyBufferSize] = {};
    sockaddr_in from;
    socklen_t from_len = sizeof(from);
    if (recvfrom(sock, reply, sizeof(reply), 0, reinterpret_cast<sockaddr*>(&from), &from_len) <=
        0) {
      ZEL_ERROR("Failed to receive ICMP Echo Reply");
      continue;
    }
    replied = IsOwnEchoReply(reply);  // anything else fails the attempt, no pause
  }
  close(sock);
  return replied;
}
