// key (the client's settings file, or a copy) and config (any key file read
// through ConfigParser).
#pragma once

#include <string>

namespace zelctl {

struct ConfigOptions {
  std::string file, group, key;
  std::string type = "string";  // bool, int, double, string
  bool list = false;
  std::string separator;  // one character; empty: the parser's default
  bool json = false;
};

int RunKeyGet(const std::string& file, const std::string& section, const std::string& key,
              bool json);
int RunKeyPut(const std::string& file, const std::string& section, const std::string& key,
              const std::string& value, bool json);
int RunConfig(const ConfigOptions& options);

}  // namespace zelctl
