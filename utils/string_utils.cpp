#include "utils/string_utils.h"

#include <cstddef>
#include <cstdint>
#include <utility>

namespace {

constexpr size_t kMaxKvLength = 4096;
constexpr size_t kMaxBracketDepth = 4095;  // fits the 4096-byte stack below

bool IsAsciiDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

char OpenerOf(char closer) {
  switch (closer) {
    case ')':
      return '(';
    case ']':
      return '[';
    default:
      return '{';
  }
}

}  // namespace

extern "C" int parse_string_kv(const std::string& str, const std::string& sep, std::string& key,
                               std::string& value) {
  if (str.empty() || sep.empty() || str.size() > kMaxKvLength || str.size() < sep.size()) {
    return -1;
  }
  const size_t pos = str.find(sep);
  key = str.substr(0, pos);
  // When sep is missing, npos + sep.size() wraps to sep.size() - 1: callers
  // have always received that tail as the value.
  value = str.substr(pos + sep.size());
  return 0;
}

extern "C" std::vector<std::string> split_strings(const std::string& str, const std::string& sep) {
  std::vector<std::string> pieces;
  if (str.empty() || sep.empty()) return pieces;
  const std::string s = str + sep;  // terminates the last field
  size_t start = 0;
  for (size_t pos = s.find(sep); pos != std::string::npos; pos = s.find(sep, start)) {
    std::string piece = s.substr(start, pos - start);
    if (!piece.empty() && piece != sep) pieces.push_back(std::move(piece));
    start = pos + 1;  // one character on, not past the whole separator
  }
  return pieces;
}

extern "C" int get_brackets_value(std::string& out, const std::string& str, char open, char close,
                                  char ignored) {
  const size_t n = str.size();
  if (n < 2) return -1;
  size_t open_at = std::string::npos;
  for (size_t i = 0; i + 2 <= n; ++i) {  // the last character is never an opener
    if (str[i] == open && str[i] != ignored) {
      open_at = i;
      break;
    }
  }
  if (open_at == std::string::npos || n < 3) return -1;
  const size_t start = open_at + 1;
  size_t close_at = std::string::npos;
  for (size_t i = n - 1; i >= 2; --i) {
    if (str[i] == close && str[i] != ignored) {
      close_at = i;
      break;
    }
  }
  if (close_at == std::string::npos) return -1;
  // A close before the open wraps the length: out is then the rest of str.
  out = str.substr(start, close_at - start);
  return 0;
}

extern "C" bool check_brackets(const char* text) {
  char stack[kMaxBracketDepth + 1];
  size_t depth = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    switch (*p) {
      case '(':
      case '[':
      case '{':
        if (depth >= kMaxBracketDepth) return false;
        stack[depth++] = *p;
        break;
      case ')':
      case ']':
      case '}':
        if (depth == 0 || stack[depth - 1] != OpenerOf(*p)) return false;
        --depth;
        break;
      default:
        break;
    }
  }
  return depth == 0;
}

extern "C" int zel_htoi(const char* text) {
  const char* p = text;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) p += 2;
  uint32_t value = 0;
  for (; IsAsciiDigit(*p) || IsAsciiLetter(*p); ++p) {
    const char c = (*p >= 'A' && *p <= 'Z') ? static_cast<char>(*p - 'A' + 'a') : *p;
    const uint32_t digit = IsAsciiDigit(c) ? static_cast<uint32_t>(c - '0')
                                           : static_cast<uint32_t>(c - 87);  // 'a' is 10
    value = value * 16u + digit;
  }
  return static_cast<int>(value);
}
