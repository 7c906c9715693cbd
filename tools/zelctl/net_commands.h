// probe and ping: can this machine reach a server (TCP, ICMP).
#pragma once

#include <string>

namespace zelctl {

int RunProbe(const std::string& ip, int port, bool json);
int RunPing(const std::string& ip, int timeout_ms, int retries, bool json);

}  // namespace zelctl
