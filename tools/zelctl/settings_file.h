// The settings file's own line rules (sections, name=value lines, a name
// matching when it equals the start of the requested key, sections never
// left once entered, values cut to 31 characters), applied to any file, so
// that a copy can be read and changed exactly as the client would.
#pragma once

#include <string>

namespace zelctl {

// Reads `key` of `section` the way the client reads it. Returns 0 (with
// *found and *value) or the errno of opening the file.
int LookUpSetting(const std::string& path, const std::string& section, const std::string& key,
                  bool* found, std::string* value);

// Whether a write of `key` in `section` would replace a line (the writer
// matches lines by its own rules). Returns 0 or the errno of opening the file.
int FindSettingForWrite(const std::string& path, const std::string& section, const std::string& key,
                        bool* found);

// Replaces the first matching line as the client does: the whole file goes
// through "<path>.tmp", renamed over `path`. Returns 0, or an errno value with
// *failed_path naming the file at fault.
int WriteSetting(const std::string& path, const std::string& section, const std::string& key,
                 const std::string& value, std::string* failed_path);

}  // namespace zelctl
