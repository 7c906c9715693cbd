// The trace keys shared by the client and the trace backends: the member
// names of trace records and attribute maps. Each source file that includes
// this header gets its own copy of the constants (internal linkage), built
// when the library is loaded.
#pragma once

#include <string>

namespace zel {

static const std::string kZelModule = "zelModule";  // module name given to Tracer::post
static const std::string kZelVersion = "zelVersion";
static const std::string kEventType = "eventType";
static const std::string kEvent = "event";
static const std::string kErrorCode = "errorCode";
static const std::string kMessage = "message";
static const std::string kVid = "vid";
static const std::string kPid = "pid";
static const std::string kVmid = "vmid";
static const std::string kProductName = "productName";
static const std::string kDriverName = "driverName";
static const std::string kRedirtype = "redirtype";
static const std::string kOrvanePolicy = "orvanePolicy";
static const std::string kType = "type";
static const std::string kClass = "class";
static const std::string kStatus = "status";
static const std::string kLocalPolicy = "localPolicy";
static const std::string kRemotePolicy = "remotePolicy";
static const std::string kAutoconnect = "autoconnect";
static const std::string kTurbousb = "turbousb";
static const std::string kBiz = "biz";
static const std::string kStep = "step";
static const std::string kTimeMs = "TimeMs";
static const std::string kStartTs = "startTs";
static const std::string kSuccess = "success";
static const std::string kContext = "context";
static const std::string kDesktopId = "desktopId";
static const std::string kImageVersion = "imageVersion";
static const std::string kRedirTypeList = "redirTypeList";
static const std::string kDeviceType = "deviceType";
static const std::string kCredibility = "credibility";
static const std::string kFlowLevel = "flowLevel";
static const std::string kFlowName = "flowName";
static const std::string kZelContext = "zelContext";
static const std::string kProcessId = "processId";
static const std::string kVmContextId = "vmContextId";
static const std::string kPrinterRedirType = "printerRedirType";

}  // namespace zel
