// libFuzzer target for the string helpers, which parse text from outside
// (configuration values, device descriptions). Build: see fuzz/README.md.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "utils/string_utils.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

// Input: byte 0 = separator length (mod 4), then open, close, ignored, then
// the separator, then the text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  const size_t sep_len = data[0] % 4;
  const char open = static_cast<char>(data[1]);
  const char close = static_cast<char>(data[2]);
  const char ignored = static_cast<char>(data[3]);
  data += 4;
  size -= 4;
  if (size < sep_len) return 0;
  const std::string sep(reinterpret_cast<const char*>(data), sep_len);
  const std::string text(reinterpret_cast<const char*>(data + sep_len), size - sep_len);

  std::string key = "k", value = "v";
  if (parse_string_kv(text, sep, key, value) == 0) {
    Check(text.compare(0, key.size(), key) == 0);
    Check(value.size() <= text.size());
  } else {
    Check(key == "k" && value == "v");
  }

  for (const std::string& piece : split_strings(text, sep)) {
    Check(!piece.empty() && piece != sep && piece.size() < text.size() + sep.size());
  }

  std::string out = "unchanged";
  if (get_brackets_value(out, text, open, close, ignored) == 0) {
    Check(out.size() < text.size() && text.find(out) != std::string::npos);
  } else {
    Check(out == "unchanged");
  }

  const std::string c_text = text.c_str();  // stops at the first NUL, as C callers do
  check_brackets(c_text.c_str());
  zel_htoi(c_text.c_str());
  return 0;
}
