#include "settings_commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <vector>

#include "cli_support.h"
#include "utils/config_parser.h"
#include "utils/key_store.h"

namespace zelctl {
namespace {

// The client's settings file, as the library names it.
std::string SettingsPath() {
  char* path = GetConfigFilePath();
  if (path == nullptr) throw std::bad_alloc();
  std::string text = path;
  std::free(path);
  return text;
}

// The library's reader on `path`. Returns the value; *found is 1 when a
// matching line was there, 0 when not, -1 when the file cannot be opened.
std::string ReadSetting(const std::string& path, const std::string& section, const std::string& key,
                        int* found) {
  QuietStdStreams quiet;  // its perror line is not the answer
  char* value = GetKeyStringInFile(path.c_str(), section.c_str(), key.c_str(), found);
  if (value == nullptr) throw std::bad_alloc();
  std::string text = value;
  std::free(value);
  return text;
}

std::string Describe(const std::string& section, const std::string& key, const std::string& path) {
  return "key " + key + " not found in [" + section + "] of " + path;
}

// Opens and closes `path`, refusing a folder (which fopen would read as empty).
bool ReadableFile(const std::string& path, int* error) {
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    *error = errno;
    return false;
  }
  struct stat info = {};
  const bool folder = fstat(fd, &info) == 0 && S_ISDIR(info.st_mode);
  close(fd);
  if (folder) *error = EISDIR;
  return !folder;
}

std::string DoubleText(double value) {
  std::ostringstream text;
  text.precision(17);
  text << value;
  return text.str();
}

struct KeyLookup {
  std::string path;  // the file read
  std::string value;
  bool found = false;  // a matching line was there (its value may be empty)
};

// Looks `key` of `section` up in `file` (the settings file when empty) by the
// library's rules. False, with the error reported, when it cannot be read.
bool LookUpKey(const std::string& file, const std::string& section, const std::string& key,
               KeyLookup* lookup) {
  lookup->path = file.empty() ? SettingsPath() : file;
  int error = 0;
  if (!ReadableFile(lookup->path, &error)) {
    ReportError(WithErrno("cannot read " + lookup->path, error));
    return false;
  }
  int found = 0;
  lookup->value = ReadSetting(lookup->path, section, key, &found);
  if (found < 0) {
    ReportError("cannot read " + lookup->path);
    return false;
  }
  lookup->found = found == 1;
  return true;
}

}  // namespace

int RunKeyGet(const std::string& file, const std::string& section, const std::string& key,
              bool json) {
  KeyLookup lookup;
  if (!LookUpKey(file, section, key, &lookup)) return kExitIo;
  if (json) {
    Json::Value answer(Json::objectValue);
    answer["file"] = lookup.path;
    answer["section"] = section;
    answer["key"] = key;
    answer["found"] = lookup.found;
    answer["value"] = lookup.found ? Json::Value(lookup.value) : Json::Value(Json::nullValue);
    PrintJson(answer);
  } else if (lookup.found) {
    std::printf("%s\n", lookup.value.c_str());
  }
  if (!lookup.found) {
    if (!json) ReportError(Describe(section, key, lookup.path));
    return kExitNegative;
  }
  return kExitOk;
}

int RunKeyPut(const std::string& file, const std::string& section, const std::string& key,
              const std::string& value, bool json) {
  if (value.find_first_of("\r\n") != std::string::npos) {
    ReportError("VALUE: a value cannot hold a line break");
    return kExitUsage;
  }
  KeyLookup lookup;
  if (!LookUpKey(file, section, key, &lookup)) return kExitIo;
  const std::string& path = lookup.path;
  // The store adds no key: a missing one is a negative answer, file untouched.
  if (lookup.found) {
    const int result =
        PutKeyStringInFile(path.c_str(), section.c_str(), key.c_str(), value.c_str());
    if (result == -2) {
      ReportError("cannot read " + path);
      return kExitIo;
    }
    if (result == -1) {
      ReportError("cannot write " + path + ".tmp");
      return kExitIo;
    }
    if (result != 0) {
      ReportError("cannot replace " + path);
      return kExitIo;
    }
  }
  if (json) {
    Json::Value answer(Json::objectValue);
    answer["file"] = path;
    answer["section"] = section;
    answer["key"] = key;
    answer["value"] = value;
    answer["written"] = lookup.found;
    PrintJson(answer);
  }
  if (!lookup.found) {
    if (!json) ReportError(Describe(section, key, path) + "; nothing written");
    return kExitNegative;
  }
  return kExitOk;
}

int RunConfig(const ConfigOptions& options) {
  int error = 0;
  if (!ReadableFile(options.file, &error)) {
    ReportError(WithErrno("cannot read " + options.file, error));
    return kExitIo;
  }
  zel::ConfigParser parser;
  std::string raw;
  Json::Value value;
  std::vector<std::string> texts;  // the answer as text, one element per line
  {
    QuietStdStreams quiet;  // the parser's diagnostics are not the answer
    if (parser.Init(options.file, options.separator) != 0) {
      error = -1;
    } else {
      // A missing key and an empty one both read as "": no value.
      raw = parser.GetStringVal(options.group, options.key);
      if (options.list) {
        value = Json::Value(Json::arrayValue);
        if (options.type == "bool") {
          for (bool b : parser.GetBooleanVals(options.group, options.key)) {
            value.append(b);
            texts.push_back(b ? "true" : "false");
          }
        } else if (options.type == "int") {
          for (int i : parser.GetIntegerVals(options.group, options.key)) {
            value.append(i);
            texts.push_back(std::to_string(i));
          }
        } else if (options.type == "double") {
          for (double d : parser.GetDoubleVals(options.group, options.key)) {
            value.append(d);
            texts.push_back(DoubleText(d));
          }
        } else {
          for (const std::string& s : parser.GetStringVals(options.group, options.key)) {
            value.append(s);
            texts.push_back(s);
          }
        }
      } else if (options.type == "bool") {
        const bool b = parser.GetBooleanVal(options.group, options.key);
        value = b;
        texts.push_back(b ? "true" : "false");
      } else if (options.type == "int") {
        int i = 0;
        parser.GetIntegerVal(options.group, options.key, &i);
        value = i;
        texts.push_back(std::to_string(i));
      } else if (options.type == "double") {
        double d = 0;
        parser.GetDoubleVal(options.group, options.key, &d);
        value = d;
        texts.push_back(DoubleText(d));
      } else {
        value = raw;
        texts.push_back(raw);
      }
    }
  }
  if (error != 0) {
    ReportError("cannot load " + options.file + ": not a key file");
    return kExitIo;
  }
  const bool found = !raw.empty();
  if (options.json) {
    Json::Value answer(Json::objectValue);
    answer["file"] = options.file;
    answer["group"] = options.group;
    answer["key"] = options.key;
    answer["type"] = options.type;
    answer["list"] = options.list;
    answer["found"] = found;
    answer["raw"] = found ? Json::Value(raw) : Json::Value(Json::nullValue);
    answer["value"] = found ? value : Json::Value(Json::nullValue);
    PrintJson(answer);
  } else if (found) {
    for (const std::string& text : texts) std::printf("%s\n", text.c_str());
  }
  if (!found) {
    if (!options.json) {
      ReportError("key " + options.key + " has no value in [" + options.group + "] of " +
                  options.file);
    }
    return kExitNegative;
  }
  return kExitOk;
}

}  // namespace zelctl
