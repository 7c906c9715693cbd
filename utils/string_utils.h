/// @file
/// Small parsers for configuration and device strings. Each one keeps the
/// edge behaviour client code relies on, which differs in places from the
/// usual library idiom (see each function). Stateless; callable from any
/// thread at once.
#pragma once

#include <string>
#include <vector>

#include "utils/export.h"

ZEL_BEGIN_C_LINKAGE

/// Splits `str` at the first `sep` into `key` and `value` (neither trimmed,
/// either may be empty). Without `sep` in `str`, key is the whole text and
/// value is the text from index sep.size() - 1 ("abc" with ":=" gives "abc"
/// and "bc").
/// @param str Text to split.
/// @param sep Separator.
/// @param key Receives the text before the separator.
/// @param value Receives the text after the separator.
/// @return 0; -1, leaving both untouched, when `str` or `sep` is empty, `str`
///   is longer than 4096 characters or shorter than `sep`.
ZEL_API int parse_string_kv(const std::string& str, const std::string& sep, std::string& key,
                            std::string& value);

/// Splits `str` at every `sep`. After a separator the scan moves on by one
/// character only, so the rest of a longer separator starts the next field
/// ("a::b" with "::" gives "a" and ":b").
/// @param str Text to split.
/// @param sep Separator.
/// @return The non-empty fields of `str` between occurrences of `sep`, in
///   order; empty when either argument is empty.
ZEL_API std::vector<std::string> split_strings(const std::string& str, const std::string& sep);

/// Puts into `out` the text between the first `open` (not at the last index)
/// and the last `close` (not below index 2); characters equal to `ignored`
/// never count as brackets. Nesting is kept and balance is not checked; when
/// the close lies before the open, `out` is the rest of the text after the
/// open ("ab)(cd" gives "cd").
/// @param out Receives the text between the brackets.
/// @param str Text to search.
/// @param open Opening bracket character.
/// @param close Closing bracket character.
/// @param ignored A character that never counts as a bracket.
/// @return 0, or -1 leaving `out` unchanged when the text is shorter than 3
///   characters or a bracket is missing.
ZEL_API int get_brackets_value(std::string& out, const std::string& str, char open, char close,
                               char ignored);

/// Checks that (), [] and {} balance, with at most 4095 open at once. No
/// escaping or quoting.
/// @param text Terminated text; must not be null.
/// @return True when the brackets balance; false otherwise and for deeper
///   nesting.
ZEL_API bool check_brackets(const char* text);

/// Reads hexadecimal text with an optional "0x"/"0X" prefix up to the first
/// character that is neither a digit nor an ASCII letter, in wrapping 32-bit
/// arithmetic. Letters beyond 'f' count on ('g' is 16, 'z' 35).
/// @param text Terminated text; must not be null.
/// @return The value; 0 when the text does not start with a digit or letter.
ZEL_API int zel_htoi(const char* text);

ZEL_END_C_LINKAGE
