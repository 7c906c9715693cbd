/// @file
/// Reachability checks run before the client uses a server. Both take an IPv4
/// address in dotted text (no host names), create one socket, use it and
/// close it; reentrant, all state on the caller's stack. Diagnostics go to the
/// library's diagnostic log; nothing is thrown.
#pragma once

#include <string>

#include "utils/export.h"

ZEL_BEGIN_C_LINKAGE

/// Tries a TCP connection (non-blocking connect, then select for
/// writability). Blocks the caller for up to about a second. Text that is not
/// a dotted IPv4 address tries 0.0.0.0.
/// @param ip IPv4 address in dotted text.
/// @param port TCP port.
/// @return True when the connection to ip:port completes within one second.
ZEL_API bool check_ip_port(const std::string& ip, int port);

/// Pings `ip`. Each attempt sends one 28-byte echo request and receives one
/// ICMP packet: any other packet (this host's own request on loopback
/// included) fails that attempt. Needs a raw socket (superuser).
///
/// `timeout_ms` is handed to setsockopt with option number 0x1007, which is
/// SO_ERROR on macOS, not SO_RCVTIMEO: the call fails and no receive time-out
/// is set, so each receive waits until some ICMP packet arrives. Kept so on
/// purpose.
/// @param ip IPv4 address in dotted text.
/// @param timeout_ms Meant as the receive time-out in milliseconds; sets none
///   (see above).
/// @param retries Attempts after the first one.
/// @return True when an ICMP echo reply carrying this process's identifier
///   (low 16 bits of getpid()) is received within `retries` + 1 attempts;
///   false at once for negative `retries`.
ZEL_API bool check_ip_by_icmp(const std::string& ip, int timeout_ms, int retries);

ZEL_END_C_LINKAGE
