// A fixture for the back-end observer suites: simulated services, a real serial queue, and
// observers made on it whose events are recorded with the queue they arrived on. The main run
// loop's clock is put back to the system clock after each test, for tests that drive it.
#pragma once

#include <memory>
#include <vector>

#include "HarkwellFoundation/Observer/MediaDeviceObserver.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SimulatedServicesFixture.h"
#include "tests/support/Waiting.h"

namespace harkwell::testing {

struct ObservedEvent {
  MediaDeviceEvent event;
  MediaDevice device;
  bool onQueue;  // whether the handler ran on the observer's queue
};

class ObserverTest : public SimulatedServicesTest {
 protected:
  void TearDown() override {
    DrainQueue(queue);
    MainRunLoop::shared().useSystemClockForTesting();
    SimulatedServicesTest::TearDown();
  }

  // A new observer on `queue` whose initial fill has run, its events going to `events`.
  template <class Observer>
  std::shared_ptr<Observer> MakeObserver() {
    auto observer = Observer::create(queue);
    observer->setDeviceEventHandler(
        [this](MediaDeviceObserver&, MediaDeviceEvent event, const MediaDevice& device) {
          events.append({event, device, queue->isCurrent()});
        });
    DrainQueue(queue);
    return observer;
  }

  std::vector<MediaDeviceEvent> EventKinds() const {
    std::vector<MediaDeviceEvent> kinds;
    for (const auto& entry : events.entries()) kinds.push_back(entry.event);
    return kinds;
  }

  const std::shared_ptr<DispatchQueue> queue = DispatchQueue::createSerial("test.observer");
  Recorder<ObservedEvent> events;
  LogCapture log;
};

}  // namespace harkwell::testing
