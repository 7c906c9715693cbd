// Fuzz target for the string helpers, which pick apart text from outside
// (configuration values, device descriptions). Each helper's answer is
// compared with a plain reference written from its rules below, so a
// difference anywhere, not only a crash, is a finding.
//
// Input: byte 0 = separator length (mod 4); bytes 1-3 = open, close and
// ignored characters for get_brackets_value; then the separator; then the
// text. check_brackets and zel_htoi get the text up to its first NUL, as C
// callers pass it.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "utils/string_utils.h"

namespace {

void Check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "string_utils_fuzz: %s\n", what);
    std::abort();
  }
}

// Index of the first `needle` in `hay` at or after `from`, or -1.
long Find(const std::string& hay, const std::string& needle, size_t from = 0) {
  if (needle.size() > hay.size()) return -1;
  for (size_t i = from; i + needle.size() <= hay.size(); ++i) {
    if (hay.compare(i, needle.size(), needle) == 0) return static_cast<long>(i);
  }
  return -1;
}

// Splits at the first separator. Refuses empty text or separator, text over
// 4096 characters and text shorter than the separator. Without a separator
// the key is the whole text and the value starts at (separator length - 1).
int RefParseKv(const std::string& str, const std::string& sep, std::string& key,
               std::string& value) {
  if (str.empty() || sep.empty() || str.size() > 4096 || str.size() < sep.size()) return -1;
  const long pos = Find(str, sep);
  if (pos >= 0) {
    key = str.substr(0, static_cast<size_t>(pos));
    value = str.substr(static_cast<size_t>(pos) + sep.size());
  } else {
    key = str;
    value = str.substr(sep.size() - 1);
  }
  return 0;
}

// Appends the separator once, then repeatedly cuts at the first separator,
// keeping pieces that are neither empty nor the separator, and moves on by
// one character (not the separator's length).
std::vector<std::string> RefSplit(const std::string& str, const std::string& sep) {
  std::vector<std::string> pieces;
  if (str.empty() || sep.empty()) return pieces;
  const std::string s = str + sep;
  // `start` stands for the text cut off so far (s = s.substr(pos + 1)).
  size_t start = 0;
  for (long pos = Find(s, sep, start); pos >= 0; pos = Find(s, sep, start)) {
    const std::string piece = s.substr(start, static_cast<size_t>(pos) - start);
    if (!piece.empty() && piece != sep) pieces.push_back(piece);
    start = static_cast<size_t>(pos) + 1;
  }
  return pieces;
}

// First opener from the left (the last character never counts), last closer
// from the right down to index 2; a closer before the opener yields the rest
// of the text.
int RefBrackets(std::string& out, const std::string& str, char open, char close, char ignored) {
  const long n = static_cast<long>(str.size());
  if (n <= 1) return -1;
  long first = -1;
  for (long i = 0; i <= n - 2 && first < 0; ++i) {
    if (str[i] == open && str[i] != ignored) first = i;
  }
  if (first < 0 || n < 3) return -1;
  const long start = first + 1;
  long last = -1;
  for (long i = n - 1; i >= 2 && last < 0; --i) {
    if (str[i] == close && str[i] != ignored) last = i;
  }
  if (last < 0) return -1;
  out = last >= start ? str.substr(start, last - start) : str.substr(start);
  return 0;
}

// Balanced ()[]{} with at most 4095 open at once; everything else ignored.
bool RefCheckBrackets(const std::string& text) {
  std::vector<char> open;
  for (char c : text) {
    if (c == '(' || c == '[' || c == '{') {
      if (open.size() == 4095) return false;
      open.push_back(c);
    } else if (c == ')' || c == ']' || c == '}') {
      const char want = c == ')' ? '(' : c == ']' ? '[' : '{';
      if (open.empty() || open.back() != want) return false;
      open.pop_back();
    }
  }
  return open.empty();
}

// Optional 0x/0X, then digits and letters of any case ('g' is 16 ... 'z'
// 35), in wrapping 32-bit arithmetic.
int RefHtoi(const std::string& text) {
  size_t i = text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') ? 2 : 0;
  uint32_t value = 0;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    uint32_t digit;
    if (c >= '0' && c <= '9') {
      digit = static_cast<uint32_t>(c - '0');
    } else if (c >= 'a' && c <= 'z') {
      digit = static_cast<uint32_t>(c - 'a' + 10);
    } else if (c >= 'A' && c <= 'Z') {
      digit = static_cast<uint32_t>(c - 'A' + 10);
    } else {
      break;
    }
    value = value * 16u + digit;
  }
  return static_cast<int>(value);
}

}  // namespace

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

  {
    std::string key = "untouched-key", value = "untouched-value";
    std::string ref_key = key, ref_value = value;
    const int rc = parse_string_kv(text, sep, key, value);
    Check(rc == RefParseKv(text, sep, ref_key, ref_value), "parse_string_kv result");
    Check(key == ref_key && value == ref_value, "parse_string_kv key/value");
  }

  Check(split_strings(text, sep) == RefSplit(text, sep), "split_strings pieces");

  {
    std::string out = "untouched", ref_out = out;
    const int rc = get_brackets_value(out, text, open, close, ignored);
    Check(rc == RefBrackets(ref_out, text, open, close, ignored), "get_brackets_value result");
    Check(out == ref_out, "get_brackets_value text");
  }

  const std::string c_text = text.c_str();  // up to the first NUL, as C callers pass it
  Check(check_brackets(c_text.c_str()) == RefCheckBrackets(c_text), "check_brackets");
  Check(zel_htoi(c_text.c_str()) == RefHtoi(c_text), "zel_htoi");
  return 0;
}
