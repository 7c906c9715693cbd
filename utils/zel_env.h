/// @file
/// The layout of ZelEnv is ABI: clients allocate these objects, so their size and the places of
/// their public members stay (abi/libzel_utils.abi; docs/architecture.md).
///
/// ZelEnv: a process-wide table of named settings shared by every user of the
/// library (the tracer reads "desktopId" and "imageVersion" from it). It is not
/// the operating-system environment and starts empty. Thread-safe.
#pragma once

#include <string>

#include "utils/export.h"

namespace zel {

/// A process-wide table of named settings, not the operating-system
/// environment. It starts empty; both functions take the table's own mutex, so
/// any thread may call them.
class ZelEnv {
 public:
  /// Looks up a setting.
  /// @param name Name of the setting.
  /// @return The value stored under `name`, or "" when there is none.
  ZEL_API static std::string zel_get_env(std::string name);
  /// Stores `value` under `name`, replacing any earlier value.
  /// @param name Name of the setting.
  /// @param value Value to store (copied).
  /// @return Always 0.
  ZEL_API static int zel_set_env(const std::string& name, const std::string& value);
};

}  // namespace zel
