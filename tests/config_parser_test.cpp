#include "utils/config_parser.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/child_run.h"
#include "support/diag_capture.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;
using zeltest::DiagCapture;

constexpr char kSample[] =
    "# settings of the sample\n"
    "[general]\n"
    "enabled=true\n"
    "disabled=false\n"
    "name=printer one\n"
    "count=42\n"
    "negative=-7\n"
    "ratio=2.5\n"
    "word=abc\n"
    "[lists]\n"
    "flags=true;false;true\n"
    "bad_flags=true;maybe\n"
    "names=a;b c;d\n"
    "numbers=1;2;3\n"
    "comma_numbers=1,2,3\n"
    "bad_numbers=1;x;3\n"
    "ratios=0.5;1.25\n"
    "bad_ratios=0.5;half\n"
    "empty=\n";

class ConfigParserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sample_ = Write("sample.ini", kSample);
    DiagCapture::Clear();
  }
  void TearDown() override { EXPECT_TRUE(scratch_.Remove()); }

  std::string Write(const std::string& name, const std::string& text) {
    const std::string path = (dir_ / name).string();
    zeltest::WriteFile(path, text);
    return path;
  }
  // A parser loaded with the sample and the default separator.
  void LoadSample(zel::ConfigParser* parser, const std::string& separator = "") {
    ASSERT_EQ(0, parser->Init(sample_, separator));
    DiagCapture::Clear();
  }

  // In /tmp itself, where an ordinary user's child can reach it.
  zeltest::TempDir scratch_{"zel_config_parser", "/tmp"};
  // The scratch folder, without a trailing slash.
  const fs::path dir_ = fs::path(scratch_.path()).parent_path();
  std::string sample_;
};

// The diagnostic text of the library's error convention.
std::string ErrorText(const std::string& function, int line, const std::string& message) {
  return "config_parser.cpp " + function + "(" + std::to_string(line) + "): \"Error:\" \"" +
         message + "\"";
}

// One error diagnostic at `function`/`line` whose message ends in the literal " \n".
void ExpectOneGLibError(const std::string& function, int line, const std::string& key) {
  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(7, lines[0].level);
  EXPECT_EQ("ZEL_LOG", lines[0].tag);
  const std::string prefix =
      "config_parser.cpp " + function + "(" + std::to_string(line) + "): \"Error:\" \"";
  const std::string suffix = " \\n\"";
  const std::string& text = lines[0].text;
  EXPECT_EQ(0u, text.find(prefix)) << text;
  ASSERT_GE(text.size(), suffix.size());
  EXPECT_EQ(suffix, text.substr(text.size() - suffix.size())) << text;
  EXPECT_NE(std::string::npos, text.find(key)) << text;
}

// ---- Init ----

TEST_F(ConfigParserTest, InitLoadsAnExistingKeyFile) {
  DiagCapture capture;
  zel::ConfigParser parser;
  EXPECT_EQ(0, parser.Init(sample_, ""));
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ConfigParserTest, InitWithEmptyFileNameFailsWithLine13) {
  DiagCapture capture;
  zel::ConfigParser parser;
  EXPECT_EQ(-1, parser.Init("", ","));
  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(7, lines[0].level);
  EXPECT_EQ(ErrorText("Init", 13, "file[] err"), lines[0].text);
}

TEST_F(ConfigParserTest, InitOfMissingFileFailsWithLine29) {
  DiagCapture capture;
  zel::ConfigParser parser;
  const std::string missing = (dir_ / "missing.ini").string();
  EXPECT_EQ(-1, parser.Init(missing, ""));
  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(7, lines[0].level);
  EXPECT_EQ(ErrorText("Init", 29, "file[" + missing + "] err"), lines[0].text);
}

TEST_F(ConfigParserTest, InitOfFileThatIsNotAKeyFileFailsWithLine29) {
  DiagCapture capture;
  zel::ConfigParser parser;
  const std::string junk = Write("junk.ini", "this is not\na key file\n");
  EXPECT_EQ(-1, parser.Init(junk, ""));
  EXPECT_EQ(1u, DiagCapture::Count(ErrorText("Init", 29, "file[" + junk + "] err")));
}

TEST_F(ConfigParserTest, InitOfBinaryJunkFails) {
  zel::ConfigParser parser;
  std::string junk(4096, '\0');
  for (size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<char>((i * 131 + 7) % 256);
  EXPECT_EQ(-1, parser.Init(Write("junk.bin", junk), ""));
}

TEST_F(ConfigParserTest, LookupsAfterFailedInitGiveFailureValues) {
  zel::ConfigParser parser;
  ASSERT_EQ(-1, parser.Init((dir_ / "missing.ini").string(), ""));
  int number = 5;
  double ratio = 5.0;
  EXPECT_FALSE(parser.GetBooleanVal("general", "enabled"));
  EXPECT_EQ("", parser.GetStringVal("general", "name"));
  EXPECT_EQ(-1, parser.GetIntegerVal("general", "count", &number));
  EXPECT_EQ(5, number);
  EXPECT_EQ(-1, parser.GetDoubleVal("general", "ratio", &ratio));
  EXPECT_EQ(5.0, ratio);
  EXPECT_TRUE(parser.GetIntegerVals("lists", "numbers").empty());
  EXPECT_EQ(-1, parser.SetValuesByString("general", "name", "x"));
  // Destroyed here: the key file freed by the failed Init is not freed again.
}

TEST_F(ConfigParserTest, ListLookupsAfterFailedInitAreEmptySilently) {
  zel::ConfigParser parser;
  ASSERT_EQ(-1, parser.Init((dir_ / "missing.ini").string(), ""));
  DiagCapture capture;
  EXPECT_TRUE(parser.GetBooleanVals("lists", "flags").empty());
  EXPECT_TRUE(parser.GetStringVals("lists", "names").empty());
  EXPECT_TRUE(parser.GetIntegerVals("lists", "numbers").empty());
  EXPECT_TRUE(parser.GetDoubleVals("lists", "ratios").empty());
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ConfigParserTest, DefaultConstructedParserGivesFailureValues) {
  zel::ConfigParser parser;
  int number = 5;
  EXPECT_FALSE(parser.GetBooleanVal("general", "enabled"));
  EXPECT_EQ("", parser.GetStringVal("general", "name"));
  EXPECT_EQ(-1, parser.GetIntegerVal("general", "count", &number));
  EXPECT_EQ(5, number);
  EXPECT_TRUE(parser.GetStringVals("lists", "names").empty());
}

TEST_F(ConfigParserTest, DefaultConstructedParserGivesEmptyListsSilently) {
  DiagCapture capture;
  zel::ConfigParser parser;
  double ratio = 5.0;
  EXPECT_EQ(-1, parser.GetDoubleVal("general", "ratio", &ratio));
  EXPECT_EQ(5.0, ratio);
  EXPECT_TRUE(parser.GetBooleanVals("lists", "flags").empty());
  EXPECT_TRUE(parser.GetIntegerVals("lists", "numbers").empty());
  EXPECT_TRUE(parser.GetDoubleVals("lists", "ratios").empty());
  EXPECT_EQ(-1, parser.SetValuesByString("general", "name", "x"));
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ConfigParserTest, InitOfEmptyFileSucceedsAndEveryLookupMisses) {
  zel::ConfigParser parser;
  DiagCapture capture;
  ASSERT_EQ(0, parser.Init(Write("empty.ini", ""), ""));
  EXPECT_TRUE(DiagCapture::Lines().empty());
  int number = 5;
  double ratio = 5.0;
  EXPECT_FALSE(parser.GetBooleanVal("general", "enabled"));
  EXPECT_EQ("", parser.GetStringVal("general", "name"));
  EXPECT_EQ(0, parser.GetIntegerVal("general", "count", &number));
  EXPECT_EQ(0, number);
  EXPECT_TRUE(DiagCapture::Lines().empty());
  EXPECT_EQ(0, parser.GetDoubleVal("general", "ratio", &ratio));
  EXPECT_EQ(0.0, ratio);
  EXPECT_EQ(1u, DiagCapture::Count("GetDoubleVal(105)"));
  EXPECT_TRUE(parser.GetStringVals("lists", "names").empty());
  EXPECT_EQ(1u, DiagCapture::Count("GetStringVals(151)"));
}

TEST_F(ConfigParserTest, InitOfFolderFailsWithLine29) {
  DiagCapture capture;
  zel::ConfigParser parser;
  EXPECT_EQ(-1, parser.Init(dir_.string(), ""));
  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(ErrorText("Init", 29, "file[" + dir_.string() + "] err"), lines[0].text);
}

TEST_F(ConfigParserTest, RootLoadsAFileOfMode000) {
  if (geteuid() != 0) GTEST_SKIP() << "only root reads a file of mode 000";
  const std::string locked = Write("locked.ini", "[general]\nname=x\n");
  ASSERT_EQ(0, chmod(locked.c_str(), 0));
  zel::ConfigParser parser;
  ASSERT_EQ(0, parser.Init(locked, ""));
  EXPECT_EQ("x", parser.GetStringVal("general", "name"));
}

TEST_F(ConfigParserTest, OrdinaryUserCannotLoadAFileOfMode000AndGetsLine29) {
  // As root the parser runs in a child as "nobody".
  const std::string locked = Write("locked.ini", "[general]\nname=x\n");
  ASSERT_EQ(0, chmod(locked.c_str(), 0));
  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  const zeltest::ChildResult child = zeltest::RunAsOrdinaryUser([&locked] {
    DiagCapture capture;
    zel::ConfigParser parser;
    const int result = parser.Init(locked, "");
    return std::to_string(result) + "|" + parser.GetStringVal("general", "name") + "|" +
           std::to_string(DiagCapture::Count(ErrorText("Init", 29, "file[" + locked + "] err")));
  });
  EXPECT_TRUE(child.ExitedWith(0)) << child.status;
  EXPECT_EQ("-1||1", child.output);
}

TEST_F(ConfigParserTest, SecondInitReplacesTheKeyFile) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  ASSERT_EQ(0, parser.Init(Write("other.ini", "[general]\nname=other\n"), ""));
  EXPECT_EQ("other", parser.GetStringVal("general", "name"));
  int number = 5;
  EXPECT_EQ(0, parser.GetIntegerVal("general", "count", &number));
  EXPECT_EQ(0, number);
}

TEST_F(ConfigParserTest, InitIgnoresComments) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_EQ("", parser.GetStringVal("general", "# settings of the sample"));
}

// ---- single values ----

TEST_F(ConfigParserTest, GetBooleanValReadsTrueAndFalse) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetBooleanVal("general", "enabled"));
  EXPECT_FALSE(parser.GetBooleanVal("general", "disabled"));
}

TEST_F(ConfigParserTest, GetBooleanValOfMissingGroupKeyOrWrongTypeIsFalseSilently) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_FALSE(parser.GetBooleanVal("nogroup", "enabled"));
  EXPECT_FALSE(parser.GetBooleanVal("general", "nokey"));
  EXPECT_FALSE(parser.GetBooleanVal("general", "word"));
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ConfigParserTest, GetBooleanValWithEmptyArgumentsIsFalse) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_FALSE(parser.GetBooleanVal("", "enabled"));
  EXPECT_FALSE(parser.GetBooleanVal("general", ""));
}

TEST_F(ConfigParserTest, GetStringValReadsTheValue) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_EQ("printer one", parser.GetStringVal("general", "name"));
  EXPECT_EQ("42", parser.GetStringVal("general", "count"));
}

TEST_F(ConfigParserTest, GetStringValOfMissingGroupOrKeyIsEmptySilently) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_EQ("", parser.GetStringVal("nogroup", "name"));
  EXPECT_EQ("", parser.GetStringVal("general", "nokey"));
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ConfigParserTest, GetStringValWithEmptyArgumentsIsEmpty) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_EQ("", parser.GetStringVal("", "name"));
  EXPECT_EQ("", parser.GetStringVal("general", ""));
}

TEST_F(ConfigParserTest, GetIntegerValReadsTheValue) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  int number = 0;
  EXPECT_EQ(0, parser.GetIntegerVal("general", "count", &number));
  EXPECT_EQ(42, number);
  EXPECT_EQ(0, parser.GetIntegerVal("general", "negative", &number));
  EXPECT_EQ(-7, number);
}

TEST_F(ConfigParserTest, GetIntegerValOfMissingKeyReturnsZeroAndSetsZero) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  int number = 5;
  EXPECT_EQ(0, parser.GetIntegerVal("general", "nokey", &number));
  EXPECT_EQ(0, number);
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ConfigParserTest, GetIntegerValOfMissingGroupReturnsZeroAndStoresZero) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  int number = 5;
  EXPECT_EQ(0, parser.GetIntegerVal("nogroup", "count", &number));
  EXPECT_EQ(0, number);
}

TEST_F(ConfigParserTest, GetIntegerValOfWrongTypeReturnsZeroAndStoresZero) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  int number = 5;
  EXPECT_EQ(0, parser.GetIntegerVal("general", "word", &number));
  EXPECT_EQ(0, number);
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ConfigParserTest, GetIntegerValOfEmptyKeyReturnsMinusOneAndStoresNothing) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  int number = 5;
  EXPECT_EQ(-1, parser.GetIntegerVal("general", "", &number));
  EXPECT_EQ(5, number);
  EXPECT_EQ(-1, parser.GetIntegerVal("", "count", &number));
  EXPECT_EQ(5, number);
}

TEST_F(ConfigParserTest, GetDoubleValReadsTheValueSilently) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  double ratio = 0.0;
  EXPECT_EQ(0, parser.GetDoubleVal("general", "ratio", &ratio));
  EXPECT_DOUBLE_EQ(2.5, ratio);
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ConfigParserTest, GetDoubleValOfMissingKeyGivesZeroWithLine105) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  double ratio = 5.0;
  EXPECT_EQ(0, parser.GetDoubleVal("general", "nokey", &ratio));
  EXPECT_EQ(0.0, ratio);
  ExpectOneGLibError("GetDoubleVal", 105, "nokey");
}

TEST_F(ConfigParserTest, GetDoubleValOfMissingGroupGivesZeroWithLine105) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  double ratio = 5.0;
  EXPECT_EQ(0, parser.GetDoubleVal("nogroup", "ratio", &ratio));
  EXPECT_EQ(0.0, ratio);
  ExpectOneGLibError("GetDoubleVal", 105, "nogroup");
}

TEST_F(ConfigParserTest, GetDoubleValOfWrongTypeGivesZeroWithLine105) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  double ratio = 5.0;
  EXPECT_EQ(0, parser.GetDoubleVal("general", "word", &ratio));
  EXPECT_EQ(0.0, ratio);
  ExpectOneGLibError("GetDoubleVal", 105, "word");
}

TEST_F(ConfigParserTest, GetDoubleValWithEmptyArgumentsReturnsMinusOneSilently) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  double ratio = 5.0;
  EXPECT_EQ(-1, parser.GetDoubleVal("", "ratio", &ratio));
  EXPECT_EQ(-1, parser.GetDoubleVal("general", "", &ratio));
  EXPECT_EQ(5.0, ratio);
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

// ---- lists ----

TEST_F(ConfigParserTest, GetBooleanValsReadsTheListInOrder) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_EQ((std::vector<bool>{true, false, true}), parser.GetBooleanVals("lists", "flags"));
}

TEST_F(ConfigParserTest, GetBooleanValsWithNonBooleanWordIsEmptyWithLine126) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetBooleanVals("lists", "bad_flags").empty());
  ExpectOneGLibError("GetBooleanVals", 126, "maybe");
}

TEST_F(ConfigParserTest, GetBooleanValsOfMissingKeyIsEmptyWithLine126) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetBooleanVals("lists", "nokey").empty());
  ExpectOneGLibError("GetBooleanVals", 126, "nokey");
}

TEST_F(ConfigParserTest, GetBooleanValsWithEmptyArgumentsIsEmptySilently) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetBooleanVals("", "flags").empty());
  EXPECT_TRUE(parser.GetBooleanVals("lists", "").empty());
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ConfigParserTest, GetStringValsReadsTheListInOrder) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_EQ((std::vector<std::string>{"a", "b c", "d"}), parser.GetStringVals("lists", "names"));
}

TEST_F(ConfigParserTest, GetStringValsOfMissingGroupIsEmptyWithLine151) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetStringVals("nogroup", "names").empty());
  ExpectOneGLibError("GetStringVals", 151, "nogroup");
}

TEST_F(ConfigParserTest, GetStringValsWithEmptyArgumentsIsEmptySilently) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetStringVals("", "names").empty());
  EXPECT_TRUE(parser.GetStringVals("lists", "").empty());
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ConfigParserTest, ListOfEmptyValueIsEmptySilently) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetStringVals("lists", "empty").empty());
  EXPECT_TRUE(parser.GetIntegerVals("lists", "empty").empty());
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ConfigParserTest, GetIntegerValsWithDefaultSeparatorReadsTheList) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_EQ((std::vector<int>{1, 2, 3}), parser.GetIntegerVals("lists", "numbers"));
}

TEST_F(ConfigParserTest, GetIntegerValsWithCommaSeparatorSplitsOnCommas) {
  zel::ConfigParser parser;
  LoadSample(&parser, ",");
  EXPECT_EQ((std::vector<int>{1, 2, 3}), parser.GetIntegerVals("lists", "comma_numbers"));
  EXPECT_EQ((std::vector<std::string>{"a;b c;d"}), parser.GetStringVals("lists", "names"));
}

TEST_F(ConfigParserTest, TwoCharacterSeparatorKeepsTheDefault) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser, ",;");
  EXPECT_EQ((std::vector<int>{1, 2, 3}), parser.GetIntegerVals("lists", "numbers"));
  EXPECT_TRUE(parser.GetIntegerVals("lists", "comma_numbers").empty());
  ExpectOneGLibError("GetIntegerVals", 175, "1,2,3");
}

TEST_F(ConfigParserTest, GetIntegerValsWithNonIntegerIsEmptyWithLine175) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetIntegerVals("lists", "bad_numbers").empty());
  ExpectOneGLibError("GetIntegerVals", 175, "x");
}

TEST_F(ConfigParserTest, GetIntegerValsOfMissingKeyIsEmptyWithLine175) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetIntegerVals("lists", "nokey").empty());
  ExpectOneGLibError("GetIntegerVals", 175, "nokey");
}

TEST_F(ConfigParserTest, GetIntegerValsWithEmptyArgumentsIsEmptySilently) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetIntegerVals("", "numbers").empty());
  EXPECT_TRUE(parser.GetIntegerVals("lists", "").empty());
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

TEST_F(ConfigParserTest, GetDoubleValsReadsTheListInOrder) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_EQ((std::vector<double>{0.5, 1.25}), parser.GetDoubleVals("lists", "ratios"));
}

TEST_F(ConfigParserTest, GetDoubleValsWithNonNumberIsEmptyWithLine200) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetDoubleVals("lists", "bad_ratios").empty());
  ExpectOneGLibError("GetDoubleVals", 200, "half");
}

TEST_F(ConfigParserTest, GetDoubleValsOfMissingKeyIsEmptyWithLine200) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetDoubleVals("lists", "nokey").empty());
  ExpectOneGLibError("GetDoubleVals", 200, "nokey");
}

TEST_F(ConfigParserTest, GetDoubleValsWithEmptyArgumentsIsEmptySilently) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_TRUE(parser.GetDoubleVals("", "ratios").empty());
  EXPECT_TRUE(parser.GetDoubleVals("lists", "").empty());
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

// ---- SetValuesByString ----

TEST_F(ConfigParserTest, SetValuesByStringChangesMemoryOnlyAndSaysNotImplement) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_EQ(0, parser.SetValuesByString("general", "name", "printer two"));
  EXPECT_EQ("printer two", parser.GetStringVal("general", "name"));
  EXPECT_EQ(kSample, zeltest::ReadFile(sample_));
  const auto lines = DiagCapture::Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(7, lines[0].level);
  EXPECT_EQ(ErrorText("SetValuesByString", 224, "not implement"), lines[0].text);
}

TEST_F(ConfigParserTest, SetValuesByStringCreatesGroupAndKeyInMemory) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_EQ(0, parser.SetValuesByString("newgroup", "size", "17"));
  int number = 0;
  EXPECT_EQ(0, parser.GetIntegerVal("newgroup", "size", &number));
  EXPECT_EQ(17, number);
  EXPECT_EQ(kSample, zeltest::ReadFile(sample_));
}

TEST_F(ConfigParserTest, SetValuesByStringReportsOnEveryCall) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_EQ(0, parser.SetValuesByString("general", "name", "x"));
  EXPECT_EQ(0, parser.SetValuesByString("general", "name", "y"));
  EXPECT_EQ(2u, DiagCapture::Count("SetValuesByString(224)"));
}

TEST_F(ConfigParserTest, SetValuesByStringWithAnyEmptyArgumentReturnsMinusOneSilently) {
  DiagCapture capture;
  zel::ConfigParser parser;
  LoadSample(&parser);
  EXPECT_EQ(-1, parser.SetValuesByString("", "name", "x"));
  EXPECT_EQ(-1, parser.SetValuesByString("general", "", "x"));
  EXPECT_EQ(-1, parser.SetValuesByString("general", "name", ""));
  EXPECT_EQ("printer one", parser.GetStringVal("general", "name"));
  EXPECT_TRUE(DiagCapture::Lines().empty());
}

// ---- sharing ----

TEST_F(ConfigParserTest, LookupsWhileAnotherThreadWritesSeeWholeValues) {
  zel::ConfigParser parser;
  LoadSample(&parser);
  const std::string shortValue = "s";
  const std::string longValue(200, 'L');
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; !stop.load(); ++i) {
      parser.SetValuesByString("general", "name", i % 2 == 0 ? longValue : shortValue);
    }
  });
  std::vector<std::thread> readers;
  std::atomic<int> torn{0};
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        const std::string value = parser.GetStringVal("general", "name");
        if (value != shortValue && value != longValue && value != "printer one") ++torn;
        int number = 0;
        parser.GetIntegerVal("general", "count", &number);
        if (number != 42) ++torn;
        if (parser.GetIntegerVals("lists", "numbers") != std::vector<int>{1, 2, 3}) ++torn;
      }
    });
  }
  for (auto& reader : readers) reader.join();
  stop = true;
  writer.join();
  EXPECT_EQ(0, torn.load());
}

}  // namespace
