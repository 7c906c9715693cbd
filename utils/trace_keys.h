/// @file
/// The trace keys shared by the client and the trace backends: the member
/// names of trace records and attribute maps. Each source file that includes
/// this header gets its own copy of the constants (internal linkage), built
/// when the library is loaded. Immutable once built; any thread may read them.
///
/// Each key says where the library itself writes it: step records
/// (ZelTracer::SendTracerStep), flow records (ZelTracer::SendServerFlowWithAttr),
/// generic records (ZelTracer::SendGTraceWithAttr), the JSON of
/// ZelClientTracker::SendTraceAttr; "client records only" keys are never
/// written by the library.
#pragma once

#include <string>

namespace zel {

static const std::string kZelModule = "zelModule";                ///< Module name of Tracer::post.
static const std::string kZelVersion = "zelVersion";              ///< Step and generic records.
static const std::string kEventType = "eventType";                ///< Step records.
static const std::string kEvent = "event";                        ///< ZelClientTracker's JSON.
static const std::string kErrorCode = "errorCode";                ///< Client records only.
static const std::string kMessage = "message";                    ///< Client records only.
static const std::string kVid = "vid";                            ///< Client records only.
static const std::string kPid = "pid";                            ///< Client records only.
static const std::string kVmid = "vmid";                          ///< Client records only.
static const std::string kProductName = "productName";            ///< Client records only.
static const std::string kDriverName = "driverName";              ///< Client records only.
static const std::string kRedirtype = "redirtype";                ///< Client records only.
static const std::string kOrvanePolicy = "orvanePolicy";          ///< Client records only.
static const std::string kType = "type";                          ///< Client records only.
static const std::string kClass = "class";                        ///< Client records only.
static const std::string kStatus = "status";                      ///< Client records only.
static const std::string kLocalPolicy = "localPolicy";            ///< Client records only.
static const std::string kRemotePolicy = "remotePolicy";          ///< Client records only.
static const std::string kAutoconnect = "autoconnect";            ///< Client records only.
static const std::string kTurbousb = "turbousb";                  ///< Client records only.
static const std::string kBiz = "biz";                            ///< Step records.
static const std::string kStep = "step";                          ///< Step records.
static const std::string kTimeMs = "TimeMs";                      ///< Step records.
static const std::string kStartTs = "startTs";                    ///< Step records.
static const std::string kSuccess = "success";                    ///< Client records only.
static const std::string kContext = "context";                    ///< Client records only.
static const std::string kDesktopId = "desktopId";                ///< Flow records; ZelEnv name.
static const std::string kImageVersion = "imageVersion";          ///< Flow, generic; ZelEnv name.
static const std::string kRedirTypeList = "redirTypeList";        ///< Client records only.
static const std::string kDeviceType = "deviceType";              ///< Client records only.
static const std::string kCredibility = "credibility";            ///< Client records only.
static const std::string kFlowLevel = "flowLevel";                ///< Flow records.
static const std::string kFlowName = "flowName";                  ///< Flow records.
static const std::string kZelContext = "zelContext";              ///< Generic records.
static const std::string kProcessId = "processId";                ///< Flow records.
static const std::string kVmContextId = "vmContextId";            ///< Client records only.
static const std::string kPrinterRedirType = "printerRedirType";  ///< Client records only.

}  // namespace zel
