#include "utils/string_utils.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Pieces = std::vector<std::string>;

struct Kv {
  int rc;
  std::string key;
  std::string value;
};

Kv ParseKv(const std::string& str, const std::string& sep) {
  Kv kv{0, "<untouched>", "<untouched>"};
  kv.rc = parse_string_kv(str, sep, kv.key, kv.value);
  return kv;
}

void ExpectKv(const Kv& kv, const std::string& key, const std::string& value) {
  EXPECT_EQ(0, kv.rc);
  EXPECT_EQ(key, kv.key);
  EXPECT_EQ(value, kv.value);
}

void ExpectRefused(const Kv& kv) {
  EXPECT_EQ(-1, kv.rc);
  EXPECT_EQ("<untouched>", kv.key);
  EXPECT_EQ("<untouched>", kv.value);
}

// --- parse_string_kv ---

TEST(StringUtilsParseKv, SplitsAtSeparator) { ExpectKv(ParseKv("key=value", "="), "key", "value"); }

TEST(StringUtilsParseKv, EmptyKeyIsAccepted) { ExpectKv(ParseKv("=v", "="), "", "v"); }

TEST(StringUtilsParseKv, EmptyValueIsAccepted) { ExpectKv(ParseKv("k=", "="), "k", ""); }

TEST(StringUtilsParseKv, SplitsAtFirstSeparatorOnly) {
  ExpectKv(ParseKv("a=b=c", "="), "a", "b=c");
}

TEST(StringUtilsParseKv, PartsAreNotTrimmed) { ExpectKv(ParseKv(" k = v ", "="), " k ", " v "); }

TEST(StringUtilsParseKv, MultiCharacterSeparatorIsSkippedWhole) {
  ExpectKv(ParseKv("k:=v", ":="), "k", "v");
}

TEST(StringUtilsParseKv, MissingOneCharSeparatorGivesWholeTextTwice) {
  ExpectKv(ParseKv("abc", "="), "abc", "abc");
}

TEST(StringUtilsParseKv, MissingTwoCharSeparatorDropsFirstCharacterOfValue) {
  ExpectKv(ParseKv("abc", ":="), "abc", "bc");
}

TEST(StringUtilsParseKv, TextShorterThanSeparatorIsRefused) { ExpectRefused(ParseKv("a", "ab")); }

TEST(StringUtilsParseKv, TextAsLongAsMissingSeparatorGivesLastCharacter) {
  ExpectKv(ParseKv("ab", "xy"), "ab", "b");
}

TEST(StringUtilsParseKv, EmptyTextIsRefused) { ExpectRefused(ParseKv("", "=")); }

TEST(StringUtilsParseKv, EmptySeparatorIsRefused) { ExpectRefused(ParseKv("k=v", "")); }

TEST(StringUtilsParseKv, TextOf4097CharactersIsRefused) {
  ExpectRefused(ParseKv("k=" + std::string(4095, 'v'), "="));
}

TEST(StringUtilsParseKv, TextOfExactly4096CharactersIsAccepted) {
  ExpectKv(ParseKv("k=" + std::string(4094, 'v'), "="), "k", std::string(4094, 'v'));
}

// --- split_strings ---

TEST(StringUtilsSplit, SingleFieldIsReturned) { EXPECT_EQ(Pieces{"a"}, split_strings("a", ",")); }

TEST(StringUtilsSplit, FieldsComeInOrder) {
  EXPECT_EQ((Pieces{"a", "b", "c"}), split_strings("a,b,c", ","));
}

TEST(StringUtilsSplit, EmptyFieldsAreDropped) {
  EXPECT_EQ((Pieces{"a", "b", "c"}), split_strings("a,b,,c", ","));
  EXPECT_EQ(Pieces{"a"}, split_strings(",a,", ","));
}

TEST(StringUtilsSplit, OnlySeparatorsGiveEmptyVector) {
  EXPECT_TRUE(split_strings(",,,", ",").empty());
}

TEST(StringUtilsSplit, EmptySeparatorGivesEmptyVector) {
  EXPECT_TRUE(split_strings("a;b", "").empty());
}

TEST(StringUtilsSplit, EmptyTextGivesEmptyVector) { EXPECT_TRUE(split_strings("", ",").empty()); }

TEST(StringUtilsSplit, RestOfLongSeparatorStartsNextField) {
  EXPECT_EQ((Pieces{"a", ":b"}), split_strings("a::b", "::"));
}

TEST(StringUtilsSplit, FieldsAreNotTrimmed) {
  EXPECT_EQ((Pieces{" a", " b "}), split_strings(" a, b ", ","));
}

// --- get_brackets_value ---

struct Brackets {
  int rc;
  std::string out;
};

Brackets GetBrackets(const std::string& str, char open = '(', char close = ')',
                     char ignored = '\0') {
  Brackets b{0, "<untouched>"};
  b.rc = get_brackets_value(b.out, str, open, close, ignored);
  return b;
}

void ExpectBrackets(const Brackets& b, const std::string& out) {
  EXPECT_EQ(0, b.rc);
  EXPECT_EQ(out, b.out);
}

void ExpectBracketsFail(const Brackets& b) {
  EXPECT_EQ(-1, b.rc);
  EXPECT_EQ("<untouched>", b.out);
}

TEST(StringUtilsBrackets, SquareBracketsWithNulIgnored) {
  ExpectBrackets(GetBrackets("[x]", '[', ']', '\0'), "x");
}

TEST(StringUtilsBrackets, NoBracketsFails) { ExpectBracketsFail(GetBrackets("abc", '[', ']')); }

TEST(StringUtilsBrackets, OutermostPairKeepsNesting) {
  ExpectBrackets(GetBrackets("f(a(b)c)"), "a(b)c");
}

TEST(StringUtilsBrackets, SimplePair) { ExpectBrackets(GetBrackets("(a)"), "a"); }

TEST(StringUtilsBrackets, EmptyContentSucceeds) { ExpectBrackets(GetBrackets("x()"), ""); }

TEST(StringUtilsBrackets, TwoCharacterTextFails) { ExpectBracketsFail(GetBrackets("()")); }

TEST(StringUtilsBrackets, EmptyAndOneCharacterTextFail) {
  ExpectBracketsFail(GetBrackets(""));
  ExpectBracketsFail(GetBrackets("("));
}

TEST(StringUtilsBrackets, CloseBeforeOpenGivesRestOfText) {
  ExpectBrackets(GetBrackets("ab)(cd"), "cd");
}

TEST(StringUtilsBrackets, OpenerAtLastIndexIsNotSeen) { ExpectBracketsFail(GetBrackets("ab)x(")); }

TEST(StringUtilsBrackets, CloserBelowIndexTwoIsNotSeen) { ExpectBracketsFail(GetBrackets("()xy")); }

TEST(StringUtilsBrackets, MissingCloserFails) { ExpectBracketsFail(GetBrackets("(abc")); }

TEST(StringUtilsBrackets, IgnoredEqualToOpenOrCloseAlwaysFails) {
  ExpectBracketsFail(GetBrackets("x(a)", '(', ')', '('));
  ExpectBracketsFail(GetBrackets("x(a)", '(', ')', ')'));
}

TEST(StringUtilsBrackets, SameCharacterAsOpenAndClose) {
  ExpectBrackets(GetBrackets("say \"hi\" now", '"', '"'), "hi");
}

// --- check_brackets ---

TEST(StringUtilsCheckBrackets, EmptyTextIsBalanced) { EXPECT_TRUE(check_brackets("")); }

TEST(StringUtilsCheckBrackets, MismatchedPairIsFalse) { EXPECT_FALSE(check_brackets("(]")); }

TEST(StringUtilsCheckBrackets, NestedMixedPairsAreTrue) { EXPECT_TRUE(check_brackets("([]{})")); }

TEST(StringUtilsCheckBrackets, CloserFirstIsFalse) { EXPECT_FALSE(check_brackets(")(")); }

TEST(StringUtilsCheckBrackets, UnclosedOpenerIsFalse) { EXPECT_FALSE(check_brackets("a(b[c]")); }

TEST(StringUtilsCheckBrackets, OtherCharactersAndBackslashAreIgnored) {
  EXPECT_TRUE(check_brackets("f(x) = \\(y\\) + {z}"));
  EXPECT_FALSE(check_brackets("\\("));    // no escaping
  EXPECT_FALSE(check_brackets("\"(\""));  // no quoting
}

TEST(StringUtilsCheckBrackets, Depth4095IsBalanced) {
  const std::string text = std::string(4095, '(') + std::string(4095, ')');
  EXPECT_TRUE(check_brackets(text.c_str()));
}

TEST(StringUtilsCheckBrackets, Depth4096IsFalse) {
  EXPECT_FALSE(check_brackets(std::string(4096, '(').c_str()));
  const std::string closed = std::string(4096, '[') + std::string(4096, ']');
  EXPECT_FALSE(check_brackets(closed.c_str()));
}

// --- zel_htoi ---

TEST(StringUtilsHtoi, LowerCasePrefix) { EXPECT_EQ(31, zel_htoi("0x1F")); }

TEST(StringUtilsHtoi, UpperCasePrefix) { EXPECT_EQ(31, zel_htoi("0X1f")); }

TEST(StringUtilsHtoi, NoPrefix) { EXPECT_EQ(255, zel_htoi("ff")); }

TEST(StringUtilsHtoi, LeadingZeroWithoutXIsADigit) { EXPECT_EQ(0x12, zel_htoi("012")); }

TEST(StringUtilsHtoi, PrefixAloneIsZero) { EXPECT_EQ(0, zel_htoi("0x")); }

TEST(StringUtilsHtoi, EmptyTextIsZero) { EXPECT_EQ(0, zel_htoi("")); }

TEST(StringUtilsHtoi, StopsAtBlank) { EXPECT_EQ(18, zel_htoi("12 34")); }

TEST(StringUtilsHtoi, NonAlphanumericStartIsZero) {
  EXPECT_EQ(0, zel_htoi("-1"));
  EXPECT_EQ(0, zel_htoi(" 1"));
}

TEST(StringUtilsHtoi, AllOnesIsMinusOne) { EXPECT_EQ(-1, zel_htoi("ffffffff")); }

TEST(StringUtilsHtoi, WrapsPast32Bits) { EXPECT_EQ(0x23456789, zel_htoi("123456789")); }

TEST(StringUtilsHtoi, LettersBeyondFCountOn) {
  EXPECT_EQ(32, zel_htoi("1g"));
  EXPECT_EQ(35, zel_htoi("z"));
  EXPECT_EQ(35, zel_htoi("Z"));
}

TEST(StringUtilsHtoi, FirstAndLastDigitsAndLettersCount) {
  EXPECT_EQ(9, zel_htoi("09"));
  EXPECT_EQ(10 * 16 + 35, zel_htoi("az"));
  EXPECT_EQ(10 * 16 + 35, zel_htoi("AZ"));
}

TEST(StringUtilsHtoi, CharactersNextToDigitsAndLettersEndTheNumber) {
  // The neighbours of '0'-'9', 'A'-'Z' and 'a'-'z' in ASCII, and a byte above it.
  for (const char* end : {"/", ":", "@", "[", "`", "{", "\x80"}) {
    EXPECT_EQ(1, zel_htoi((std::string("1") + end + "1").c_str())) << end;
    EXPECT_EQ(0, zel_htoi((std::string(end) + "1").c_str())) << end;
  }
}

}  // namespace
