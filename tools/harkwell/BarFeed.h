// Feeds a status bar from a MediaDeviceController: keeps a BarTracker current from the
// controller's events and consumers, and writes a line in the chosen bar format each time what
// the bar shows changes (the preamble and the first line once the initial discovery is complete,
// then one per change; never two equal lines in a row).
//
// Holds end by the main run loop's timers: a timer fires on the main thread when the earliest
// hold is over and hands the expiry to the controller's queue, so tests drive holds with the run
// loop's manual clock and the feed's `now`.
//
// Threads: attach() on the thread that configures the controller; the handlers run
// on the controller's queue; stopTimers() on the main thread, after the handlers are cleared,
// before the feed's last reference goes. Lifetime: held by shared_ptr; the controller's handlers
// and the timers hold it weakly, so a feed that is gone is simply not called.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "tools/harkwell/BarFormats.h"
#include "tools/harkwell/BarSummary.h"

namespace harkwell::cli {

class BarFeed : public std::enable_shared_from_this<BarFeed> {
 public:
  using Clock = std::chrono::steady_clock;
  // Writes one line; false when the output has gone (the feed then writes nothing more).
  using WriteLine = std::function<bool(const std::string&)>;

  struct Settings {
    BarFormat format = BarFormat::Waybar;
    Clock::duration minVisible = std::chrono::seconds(1);
    WriteLine write;
    // Called once, on the controller's queue, when a write fails.
    std::function<void()> outputClosed;
    std::function<Clock::time_point()> now = Clock::now;
  };

  static std::shared_ptr<BarFeed> create(Settings settings, std::shared_ptr<DispatchQueue> queue);
  BarFeed(const BarFeed&) = delete;
  BarFeed& operator=(const BarFeed&) = delete;

  // Sets the controller's three handlers to this feed (clear them to detach it).
  void attach(MediaDeviceController& controller);
  // Invalidates the hold timers still pending. Main thread only.
  void stopTimers();

 private:
  BarFeed(Settings settings, std::shared_ptr<DispatchQueue> queue);

  // Each on the controller's queue.
  void updating(bool finished);
  void event(MediaDeviceEvent event, const MediaDevice& device);
  void consumers(const MediaDevice& device, const std::vector<MediaDeviceConsumer>& list);
  void expire();
  // Writes the summary's line when it differs from the last one written, outside a batch.
  void publish();
  // Makes sure a timer fires when the earliest hold ends.
  void scheduleHoldEnd();
  // Main thread: the timer for a hold that ends at `end`.
  void startTimerOnMainThread(Clock::time_point end);

  const Settings settings_;
  const std::shared_ptr<DispatchQueue> queue_;
  // Queue-only state.
  BarTracker tracker_;
  bool inBatch_ = false;
  bool outputGone_ = false;
  std::optional<std::string> written_;  // the last line written, as a first line
  std::optional<Clock::time_point> timerFor_;

  // Main-thread-only state.
  std::vector<std::weak_ptr<RunLoopTimer>> timers_;
  bool timersStopped_ = false;
};

}  // namespace harkwell::cli
