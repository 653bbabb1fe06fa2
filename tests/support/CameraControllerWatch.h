// A MediaDeviceController observing the cameras of a video service a suite installs, beside a
// simulated audio service without devices (so the client hears of cameras only), every event it
// delivers recorded. Header-only.
//
// Used from the test's thread. The recorders are shared with the controller's handlers, so a
// handler still queued when the test ends finds them alive.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "tests/support/ScopedHardwareServices.h"
#include "tests/support/Waiting.h"

namespace harkwell::testing {

struct ControllerEvent {
  MediaDeviceEvent event;
  MediaDevice device;
};

inline std::vector<ControllerEvent> EventsOfKind(const std::vector<ControllerEvent>& events,
                                                 MediaDeviceEvent kind) {
  std::vector<ControllerEvent> matching;
  for (const ControllerEvent& each : events) {
    if (each.event == kind) matching.push_back(each);
  }
  return matching;
}

class CameraControllerWatch {
 public:
  ~CameraControllerWatch() {
    stopObserving();
    services_.restore();
  }

  // Installs `video` and starts observing; returns once the initial discovery was delivered.
  void observe(std::shared_ptr<VideoHardwareService> video) {
    services_.install(SimulatedAudioHardwareService::create(), std::move(video));
    controller = MediaDeviceController::create(queue);
    controller->setDeviceEventHandler(
        [events = events](MediaDeviceEvent event, const MediaDevice& device) {
          events->append({event, device});
        });
    controller->setUpdatingDevicesHandler(
        [updates = updates](bool finished) { updates->append(finished); });
    controller->setObserveDevices(true);
    ASSERT_TRUE(updates->waitUntil([](const auto& all) { return !all.empty() && all.back(); }));
  }

  // Stops observing and lets the controller's queue finish what it was given.
  void stopObserving() {
    if (controller) controller->setObserveDevices(false);
    DrainQueue(queue);
  }

  // Puts back the services found when observing began.
  void restoreServices() { services_.restore(); }

  bool waitForEvent(MediaDeviceEvent kind, std::size_t count = 1) {
    return events->waitUntil(
        [&](const auto& all) { return EventsOfKind(all, kind).size() >= count; });
  }

  std::vector<ControllerEvent> eventsOfKind(MediaDeviceEvent kind) const {
    return EventsOfKind(events->entries(), kind);
  }

  std::shared_ptr<DispatchQueue> queue = DispatchQueue::createSerial("com.harkwell.test.cameras");
  std::shared_ptr<Recorder<ControllerEvent>> events = std::make_shared<Recorder<ControllerEvent>>();
  std::shared_ptr<Recorder<bool>> updates = std::make_shared<Recorder<bool>>();
  std::shared_ptr<MediaDeviceController> controller;

 private:
  ScopedHardwareServices services_;
};

}  // namespace harkwell::testing
