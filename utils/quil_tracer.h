/// @file
/// The layout of QuilTracer is ABI: clients allocate these objects, so their size and the places of
/// their public members stay (abi/libzel_utils.abi; docs/architecture.md).
///
/// The backend and hooks of the observability service. This library does not
/// implement that service: every operation here is inert and keeps no state.
#pragma once

#include <map>
#include <string>

#include "utils/export.h"
#include "utils/zel_tracer.h"

namespace zel {

/// A backend that accepts every record and does nothing with it. Stateless,
/// so any thread may call it.
class ZEL_API QuilTracer : public TracerBackend {
 public:
  /// Does nothing.
  ~QuilTracer() override;
  /// Makes no id.
  /// @return "".
  std::string CreateTraceId() override;
  /// Ignores the record.
  /// @param content Ignored.
  /// @return 1.
  int PostTrace(const std::string& content) override;
  /// Ignores the span event.
  /// @param traceId Ignored.
  /// @param spanId Ignored.
  /// @param event Ignored.
  /// @param content Ignored.
  /// @param parentSpan Ignored.
  /// @return 1.
  int PostTraceWithId(const std::string& traceId, const std::string& spanId,
                      const std::string& event, const std::string& content,
                      const std::string& parentSpan) override;
  /// Returns at once.
  /// @param traceId Ignored.
  /// @param spanId Ignored.
  /// @param event Ignored.
  /// @param attrs Ignored; left unchanged.
  /// @param parentSpan Ignored.
  void SendTraceAttr(const std::string& traceId, const std::string& spanId,
                     const std::string& event, std::map<std::string, std::string>& attrs,
                     const std::string& parentSpan) override;
};

}  // namespace zel

ZEL_BEGIN_C_LINKAGE
/// Prints "quil create traceId:%s spanId:%s\n" to standard output. The tracer
/// calls it when it is built.
/// @param spanId Printed; left unchanged.
/// @return "".
ZEL_API std::string quil_create_traceId(std::string& spanId);
/// Does nothing.
ZEL_API void post_trace_by_quil(void);
/// Does nothing.
ZEL_API void register_tavagent_handler(void);
ZEL_END_C_LINKAGE
