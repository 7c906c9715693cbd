// Small parsers for configuration and device strings. Each one keeps the
// edge behaviour client code relies on, which differs in places from the
// usual library idiom (see each function). Stateless; callable from any
// thread at once.
#pragma once

#include <string>
#include <vector>

#include "utils/export.h"

ZEL_BEGIN_C_LINKAGE

// Splits `str` at the first `sep` into `key` and `value` (neither trimmed,
// either may be empty); returns 0. Returns -1 and leaves both untouched when
// `str` or `sep` is empty, `str` is longer than 4096 characters or shorter
// than `sep`. Without `sep` in `str`, key is the whole text and value is the
// text from index sep.size() - 1 ("abc" with ":=" gives "abc" and "bc").
ZEL_API int parse_string_kv(const std::string& str, const std::string& sep, std::string& key,
                            std::string& value);

// The non-empty fields of `str` between occurrences of `sep`, in order; empty
// when either is empty. After a separator the scan moves on by one character
// only, so the rest of a longer separator starts the next field
// ("a::b" with "::" gives "a" and ":b").
ZEL_API std::vector<std::string> split_strings(const std::string& str, const std::string& sep);

// Puts into `out` the text between the first `open` (not at the last index)
// and the last `close` (not below index 2); characters equal to `ignored`
// never count as brackets. Nesting is kept and balance is not checked; when
// the close lies before the open, `out` is the rest of the text after the
// open ("ab)(cd" gives "cd"). Returns 0, or -1 leaving `out` unchanged when
// the text is shorter than 3 characters or a bracket is missing.
ZEL_API int get_brackets_value(std::string& out, const std::string& str, char open, char close,
                               char ignored);

// True when (), [] and {} in `text` balance, with at most 4095 open at once
// (deeper nesting is false). No escaping or quoting. `text` must not be null.
ZEL_API bool check_brackets(const char* text);

// Reads hexadecimal text with an optional "0x"/"0X" prefix up to the first
// character that is neither a digit nor an ASCII letter, in wrapping 32-bit
// arithmetic. Letters beyond 'f' count on ('g' is 16, 'z' 35). 0 when the
// text does not start with a digit or letter. `text` must not be null.
ZEL_API int zel_htoi(const char* text);

ZEL_END_C_LINKAGE
