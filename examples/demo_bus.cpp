#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "demo.h"
#include "utils/event_manager.h"
#include "utils/msg_bus.h"

namespace {

constexpr int kDeviceArrived = 1;

long long WallMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// A bus message with a payload of its own.
struct DeviceArrived : zel::BaseMsg {
  explicit DeviceArrived(std::string device_name)
      : BaseMsg(kDeviceArrived), name(std::move(device_name)) {}
  std::string name;
};

class Listener : public zel::MsgSubscriber {
 public:
  Listener(const char* who, long long start_ms) : who_(who), start_ms_(start_ms) {}
  void OnMsg(int msg_type, std::shared_ptr<zel::BaseMsg> msg) override {
    const auto& arrived = static_cast<const DeviceArrived&>(*msg);
    demo::Say("  +%4lld ms  %-10s got type %d \"%s\" (due +%lld ms)", WallMs() - start_ms_, who_,
              msg_type, arrived.name.c_str(), arrived.when - start_ms_);
  }

 private:
  const char* who_;
  long long start_ms_;
};

void OnUsbPlugged(void* arg) {
  demo::Say("  event \"usb-plugged\" callback, context \"%s\"", static_cast<const char*>(arg));
}

}  // namespace

void demo::Bus() {
  Section("MsgBus and EventManager");
  const long long start = WallMs();
  auto redirector = std::make_shared<Listener>("redirector", start);
  auto tray = std::make_shared<Listener>("tray", start);
  zel::MsgBus bus;
  bus.Subscribe(kDeviceArrived, redirector);
  bus.Subscribe(kDeviceArrived, tray);
  bus.Start();
  Say("  two subscribers; a camera published due in 300 ms, then a usb disk due now:");
  bus.PublishMsg(std::make_shared<DeviceArrived>("camera (delay 300 ms)"), 300);
  bus.PublishMsg(std::make_shared<DeviceArrived>("usb disk (no delay)"));
  // An idle bus looks at a future message about once a second, so the camera
  // arrives between its due time and a second later.
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  bus.Stop();
  Say("  (an idle bus looks at a future message about once a second, hence the camera's lag)");
  Say("  publishing after Stop returns %d",
      bus.PublishMsg(std::make_shared<DeviceArrived>("late")));

  static char context[] = "device table";
  auto& events = zel::EventManager::getInstance();
  events.registerEvent("usb-plugged", &OnUsbPlugged, context);
  Say("  named event \"usb-plugged\" registered; two threads send it:");
  std::thread first([&events] { events.sendEvent("usb-plugged"); });
  std::thread second([&events] { events.sendEvent("usb-plugged"); });
  first.join();
  second.join();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  events.unregisterEvent("usb-plugged", &OnUsbPlugged);
  Say("  its callback ran once per sending, one at a time, on the event thread");
}
