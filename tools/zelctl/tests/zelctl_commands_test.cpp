// zelctl's other commands through the real binary: help and usage errors,
// probe and ping on loopback, key on copies of a settings file, config,
// trace-id, session-id and version.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <string>
#include <vector>

#include "tool_run.h"

namespace {

using zelctltest::Lines;
using zelctltest::ParseJson;
using zelctltest::ReadFile;
using zelctltest::RunTool;
using zelctltest::TempDir;
using zelctltest::ToolResult;
using zelctltest::WriteFile;

// --- help and usage errors ---

TEST(Cli, HelpOnTheToolAndEveryCommandExitsZeroAndListsExitCodes) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--help"},
                                               {"-h"},
                                               {"log-dir", "--help"},
                                               {"logs", "--help"},
                                               {"probe", "--help"},
                                               {"ping", "--help"},
                                               {"key", "--help"},
                                               {"key", "get", "--help"},
                                               {"key", "put", "--help"},
                                               {"config", "--help"},
                                               {"trace-id", "--help"},
                                               {"session-id", "--help"},
                                               {"version", "--help"}}) {
    const ToolResult r = RunTool(args);
    EXPECT_EQ(0, r.exit_code) << args[0];
    EXPECT_NE(std::string::npos, r.out.find("Usage:")) << args[0];
    EXPECT_NE(std::string::npos, r.out.find("Exit codes: 0 success")) << args[0];
    EXPECT_NE(std::string::npos, r.out.find("2 a usage error")) << args[0];
    EXPECT_EQ("", r.err);
  }
}

TEST(Cli, UsageErrorsExitTwoWithOneLineOnStandardError) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{},
        {"no-such-command"},
        {"logs", "--no-such-option"},
        {"logs", "--since"},
        {"probe", "127.0.0.1"},
        {"probe", "127.0.0.1", "http"},
        {"probe", "127.0.0.1", "0"},
        {"probe", "127.0.0.1", "65536"},
        {"probe", "localhost", "80"},
        {"probe", "300.1.1.1", "80"},
        {"ping", "not-an-ip"},
        {"ping", "127.0.0.1", "--retries", "-1"},
        {"ping", "127.0.0.1", "--timeout", "0"},
        {"key"},
        {"key", "get", "section"},
        {"key", "put", "s", "k"},
        {"key", "put", "s", "k", "two\nlines", "--file", "/nonexistent"},
        {"config", "f", "g"},
        {"config", "f", "g", "k", "--type", "float"},
        {"config", "f", "g", "k", "--sep", ",;"},
        {"version", "extra"}}) {
    const ToolResult r = RunTool(args);
    std::string joined;
    for (const std::string& a : args) joined += a + " ";
    EXPECT_EQ(2, r.exit_code) << joined;
    EXPECT_EQ("", r.out) << joined;
    EXPECT_EQ(1u, Lines(r.err).size()) << joined << ": " << r.err;
    EXPECT_EQ(0u, r.err.find("zelctl: ")) << r.err;
  }
}

// --- probe ---

// A TCP listener on 127.0.0.1 with a port of the kernel's choosing.
class Listener {
 public:
  Listener() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        listen(fd_, 8) == 0 &&
        getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size) == 0) {
      port_ = ntohs(address.sin_port);
    }
  }
  ~Listener() { Close(); }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  int port() const { return port_; }

 private:
  int fd_;
  int port_ = 0;
};

TEST(Probe, AListeningLoopbackPortIsReachable) {
  Listener listener;
  ASSERT_GT(listener.port(), 0);
  const std::string port = std::to_string(listener.port());
  ToolResult r = RunTool({"probe", "127.0.0.1", port});
  EXPECT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(0u, r.out.find("127.0.0.1:" + port + " reachable")) << r.out;
  EXPECT_EQ("", r.err);  // the library's debug notes stay out of sight

  r = RunTool({"probe", "127.0.0.1", port, "--json"});
  EXPECT_EQ(0, r.exit_code);
  Json::Value value;
  ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
  EXPECT_TRUE(value["reachable"].asBool());
  EXPECT_EQ(listener.port(), value["port"].asInt());
  EXPECT_EQ("127.0.0.1", value["ip"].asString());
  EXPECT_EQ("tcp", value["check"].asString());
}

TEST(Probe, AClosedLoopbackPortIsANegativeAnswer) {
  Listener listener;
  const std::string port = std::to_string(listener.port());
  listener.Close();  // nothing listens there now
  ToolResult r = RunTool({"probe", "127.0.0.1", port, "--json"});
  EXPECT_EQ(1, r.exit_code);
  Json::Value value;
  ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
  EXPECT_FALSE(value["reachable"].asBool());
  EXPECT_LT(value["elapsed_ms"].asInt64(), 5000);
  r = RunTool({"probe", "127.0.0.1", port});
  EXPECT_EQ(1, r.exit_code);
  EXPECT_NE(std::string::npos, r.out.find("unreachable"));
}

// --- ping ---

bool CanOpenRawIcmpSocket() {
  const int fd = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
  if (fd < 0) return false;
  close(fd);
  return true;
}

TEST(Ping, LoopbackAnswersWithPrivilegesAndTheToolSaysSoWithout) {
  // Generous retries: the host's own request and other tests' ICMP take attempts.
  const ToolResult r = RunTool({"ping", "127.0.0.1", "--retries", "10", "--json"});
  if (CanOpenRawIcmpSocket()) {
    EXPECT_EQ(0, r.exit_code) << r.err;
    Json::Value value;
    ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
    EXPECT_TRUE(value["reachable"].asBool());
    EXPECT_EQ("icmp", value["check"].asString());
    EXPECT_EQ("", r.err);
  } else {
    EXPECT_EQ(3, r.exit_code);
    EXPECT_EQ("", r.out);
    EXPECT_EQ(1u, Lines(r.err).size());
    EXPECT_NE(std::string::npos, r.err.find("ping needs the superuser")) << r.err;
  }
}

TEST(Ping, OneAttemptOnLoopbackSeesOnlyItsOwnRequest) {
  // With retries 0 the one packet received is the host's copy of the request.
  const ToolResult r = RunTool({"ping", "127.0.0.1", "--retries", "0"});
  EXPECT_EQ(CanOpenRawIcmpSocket() ? 1 : 3, r.exit_code) << r.out << r.err;
  if (r.exit_code == 1) {
    EXPECT_NE(std::string::npos, r.out.find("127.0.0.1 unreachable"));
  }
}

// --- key ---

const char kSettings[] =
    "# client settings\n"
    "[net]\n"
    "port=80\n"
    "#hidden=1\n"
    "server=10.1.2.3\n"
    "[ui]\n"
    "lang=en\n"
    "long=0123456789012345678901234567890123456789\n"
    "empty=\n"
    "k=12";

struct SettingsCopy {
  TempDir temp;
  std::string path = temp.path() + "/client_config.ini";
  SettingsCopy() { WriteFile(path, kSettings); }
  ToolResult Get(const std::string& section, const std::string& key, bool json = false) const {
    std::vector<std::string> args = {"key", "get", section, key, "--file", path};
    if (json) args.push_back("--json");
    return RunTool(args);
  }
};

TEST(Key, GetReadsWithTheClientsRules) {
  SettingsCopy s;
  EXPECT_EQ("80\n", s.Get("net", "port").out);
  EXPECT_EQ("80\n", s.Get("net", "portal").out);  // the line's name is a prefix of the key
  EXPECT_EQ("en\n", s.Get("net", "lang").out);    // a section once entered is never left
  EXPECT_EQ("0123456789012345678901234567890\n", s.Get("ui", "long").out);  // 31 characters
  EXPECT_EQ("1\n", s.Get("ui", "k").out);  // a last line without newline loses a character
  ToolResult r = s.Get("ui", "empty");
  EXPECT_EQ(0, r.exit_code);
  EXPECT_EQ("\n", r.out);

  r = s.Get("net", "po");  // the line's name is longer than the key
  EXPECT_EQ(1, r.exit_code);
  EXPECT_EQ("", r.out);
  EXPECT_EQ(1u, Lines(r.err).size());
  EXPECT_NE(std::string::npos, r.err.find(s.path)) << r.err;
  EXPECT_EQ(1, s.Get("net", "#hidden").exit_code);  // comments are skipped
  EXPECT_EQ(1, s.Get("ui", "port").exit_code);      // keys before the header are ignored

  r = s.Get("net", "server", true);
  EXPECT_EQ(0, r.exit_code);
  Json::Value value;
  ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
  EXPECT_TRUE(value["found"].asBool());
  EXPECT_EQ("10.1.2.3", value["value"].asString());
  EXPECT_EQ(s.path, value["file"].asString());
  r = s.Get("net", "absent", true);
  EXPECT_EQ(1, r.exit_code);
  ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
  EXPECT_FALSE(value["found"].asBool());
  EXPECT_TRUE(value["value"].isNull());
}

TEST(Key, PutReplacesAnExistingKeyOnly) {
  SettingsCopy s;
  ToolResult r = RunTool({"key", "put", "net", "port", "8443", "--file", s.path});
  EXPECT_EQ(0, r.exit_code) << r.err;
  std::string expected = kSettings;
  expected.replace(expected.find("port=80"), 7, "port=8443");
  EXPECT_EQ(expected, ReadFile(s.path));
  EXPECT_EQ("8443\n", s.Get("net", "port").out);
  struct stat info = {};
  EXPECT_NE(0, stat((s.path + ".tmp").c_str(), &info));  // renamed over the file

  // An absent key adds nothing: a negative answer and the file unchanged.
  r = RunTool({"key", "put", "net", "absent", "1", "--file", s.path, "--json"});
  EXPECT_EQ(1, r.exit_code);
  Json::Value value;
  ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
  EXPECT_FALSE(value["written"].asBool());
  EXPECT_EQ(expected, ReadFile(s.path));

  r = RunTool({"key", "--file", s.path, "put", "ui", "lang", "fr"});
  EXPECT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ("fr\n", s.Get("ui", "lang").out);
}

TEST(Key, MissingOrUnwritableFilesAreInputOutputErrors) {
  TempDir temp;
  const std::string missing = temp.path() + "/missing.ini";
  ToolResult r = RunTool({"key", "get", "net", "port", "--file", missing});
  EXPECT_EQ(3, r.exit_code);
  EXPECT_EQ(1u, Lines(r.err).size());
  EXPECT_NE(std::string::npos, r.err.find(missing)) << r.err;
  r = RunTool({"key", "put", "net", "port", "1", "--file", missing});
  EXPECT_EQ(3, r.exit_code);
  EXPECT_NE(std::string::npos, r.err.find(missing)) << r.err;

  // The temporary file cannot be made: a folder already has its name.
  const std::string path = temp.path() + "/settings.ini";
  WriteFile(path, "[net]\nport=80\n");
  ASSERT_EQ(0, mkdir((path + ".tmp").c_str(), 0755));
  r = RunTool({"key", "put", "net", "port", "1", "--file", path});
  EXPECT_EQ(3, r.exit_code);
  EXPECT_EQ(1u, Lines(r.err).size());
  EXPECT_NE(std::string::npos, r.err.find(path + ".tmp")) << r.err;
  EXPECT_EQ("[net]\nport=80\n", ReadFile(path));

  // A folder given as the file.
  r = RunTool({"key", "get", "net", "port", "--file", temp.path()});
  EXPECT_EQ(3, r.exit_code) << r.out;
}

// --- config ---

struct KeyFile {
  TempDir temp;
  std::string path = temp.path() + "/device.conf";
  KeyFile() {
    WriteFile(path,
              "[usb]\n"
              "enabled=true\n"
              "retries=4\n"
              "ratio=0.25\n"
              "name=camera one\n"
              "ports=1;2;3\n"
              "flags=true,false,true\n"
              "words=a,b\n"
              "bad=maybe\n");
  }
  ToolResult Run(std::vector<std::string> more) const {
    std::vector<std::string> args = {"config", path, "usb"};
    args.insert(args.end(), more.begin(), more.end());
    return RunTool(args);
  }
};

TEST(Config, ReadsTypedValuesAndLists) {
  KeyFile k;
  EXPECT_EQ("true\n", k.Run({"enabled", "--type", "bool"}).out);
  EXPECT_EQ("4\n", k.Run({"retries", "--type", "int"}).out);
  EXPECT_EQ("0.25\n", k.Run({"ratio", "--type", "double"}).out);
  EXPECT_EQ("camera one\n", k.Run({"name"}).out);
  EXPECT_EQ("1\n2\n3\n", k.Run({"ports", "--type", "int", "--list"}).out);
  EXPECT_EQ("true\nfalse\ntrue\n", k.Run({"flags", "--type", "bool", "--list", "--sep", ","}).out);
  EXPECT_EQ("a\nb\n", k.Run({"words", "--list", "--sep", ","}).out);
  // What the client gets for a value of the wrong type.
  ToolResult r = k.Run({"bad", "--type", "bool"});
  EXPECT_EQ(0, r.exit_code);
  EXPECT_EQ("false\n", r.out);
  EXPECT_EQ("", r.err);  // the parser's diagnostics stay out of sight

  r = k.Run({"ports", "--type", "int", "--list", "--json"});
  EXPECT_EQ(0, r.exit_code);
  Json::Value value;
  ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
  ASSERT_TRUE(value["value"].isArray());
  ASSERT_EQ(3u, value["value"].size());
  EXPECT_EQ(3, value["value"][2].asInt());
  EXPECT_EQ("1;2;3", value["raw"].asString());
  EXPECT_TRUE(value["found"].asBool());
  r = k.Run({"ratio", "--type", "double", "--json"});
  ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
  EXPECT_DOUBLE_EQ(0.25, value["value"].asDouble());
}

TEST(Config, MissingKeyIsNegativeAndBadFilesAreInputOutputErrors) {
  KeyFile k;
  ToolResult r = k.Run({"absent", "--type", "int"});
  EXPECT_EQ(1, r.exit_code);
  EXPECT_EQ("", r.out);
  EXPECT_EQ(1u, Lines(r.err).size());
  r = k.Run({"absent", "--json"});
  EXPECT_EQ(1, r.exit_code);
  Json::Value value;
  ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
  EXPECT_FALSE(value["found"].asBool());

  r = RunTool({"config", k.temp.path() + "/missing.conf", "usb", "name"});
  EXPECT_EQ(3, r.exit_code);
  EXPECT_NE(std::string::npos, r.err.find("missing.conf")) << r.err;
  const std::string garbage = k.temp.path() + "/garbage.conf";
  const char bytes[] = "\x01\x02 not = a [key file\n\xff\xfe";
  WriteFile(garbage, std::string(bytes, sizeof(bytes) - 1));
  r = RunTool({"config", garbage, "usb", "name"});
  EXPECT_EQ(3, r.exit_code);
  EXPECT_EQ(1u, Lines(r.err).size()) << r.err;
  EXPECT_NE(std::string::npos, r.err.find(garbage)) << r.err;
}

// --- ids and version ---

TEST(Ids, TraceIdIsThirtyTwoHexDigits) {
  ToolResult r = RunTool({"trace-id"});
  EXPECT_EQ(0, r.exit_code);
  EXPECT_TRUE(std::regex_match(r.out, std::regex("[0-9a-f]{32}\n"))) << r.out;
  r = RunTool({"trace-id", "--json"});
  Json::Value value;
  ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
  EXPECT_TRUE(std::regex_match(value["trace_id"].asString(), std::regex("[0-9a-f]{32}")));
}

TEST(Ids, SessionIdIsSpanIdDashLocalTime) {
  const std::regex shape("[0-9a-f]{16}-\\d{4}-\\d{2}-\\d{2}-\\d{2}:\\d{2}:\\d{2}\\.\\d{3}");
  ToolResult r = RunTool({"session-id"});
  EXPECT_EQ(0, r.exit_code);
  ASSERT_FALSE(r.out.empty());
  EXPECT_TRUE(std::regex_match(r.out.substr(0, r.out.size() - 1), shape)) << r.out;
  const ToolResult second = RunTool({"session-id", "--json"});
  Json::Value value;
  ASSERT_TRUE(ParseJson(second.out, &value)) << second.out;
  EXPECT_TRUE(std::regex_match(value["session_id"].asString(), shape));
  EXPECT_NE(r.out.substr(0, 16), value["session_id"].asString().substr(0, 16));
}

TEST(Ids, VersionNamesToolAndLoadedLibrary) {
  ToolResult r = RunTool({"version"});
  EXPECT_EQ(0, r.exit_code);
  EXPECT_TRUE(std::regex_match(r.out, std::regex("zelctl \\d+\\.\\d+\\.\\d+ \\(libzel_utils "
                                                 "\\d+\\.\\d+\\.\\d+\\)\n")))
      << r.out;
  r = RunTool({"version", "--json"});
  Json::Value value;
  ASSERT_TRUE(ParseJson(r.out, &value)) << r.out;
  EXPECT_EQ(value["zelctl"].asString(), value["library"].asString());
}

}  // namespace
