#include "tools/harkwell/BarFeed.h"

#include <algorithm>

namespace harkwell::cli {

std::shared_ptr<BarFeed> BarFeed::create(Settings settings, std::shared_ptr<DispatchQueue> queue) {
  return std::shared_ptr<BarFeed>(new BarFeed(std::move(settings), std::move(queue)));
}

BarFeed::BarFeed(Settings settings, std::shared_ptr<DispatchQueue> queue)
    : settings_(std::move(settings)), queue_(std::move(queue)), tracker_(settings_.minVisible) {}

void BarFeed::attach(MediaDeviceController& controller) {
  const std::weak_ptr<BarFeed> weak = weak_from_this();
  controller.setUpdatingDevicesHandler([weak](bool finished) {
    if (auto feed = weak.lock()) feed->updating(finished);
  });
  controller.setDeviceEventHandler([weak](MediaDeviceEvent event, const MediaDevice& device) {
    if (auto feed = weak.lock()) feed->event(event, device);
  });
  controller.setDeviceConsumersHandler(
      [weak](const MediaDevice& device, const std::vector<MediaDeviceConsumer>& list) {
        if (auto feed = weak.lock()) feed->consumers(device, list);
      });
}

void BarFeed::stopTimers() {
  timersStopped_ = true;
  for (const auto& weak : timers_) {
    if (auto timer = weak.lock()) timer->invalidate();
  }
  timers_.clear();
}

void BarFeed::updating(bool finished) {
  inBatch_ = !finished;
  if (finished) publish();
}

void BarFeed::event(MediaDeviceEvent event, const MediaDevice& device) {
  tracker_.noteEvent(event, device, settings_.now());
  publish();
}

void BarFeed::consumers(const MediaDevice& device, const std::vector<MediaDeviceConsumer>& list) {
  tracker_.noteConsumers(device, list, settings_.now());
  publish();
}

void BarFeed::expire() {
  timerFor_.reset();
  tracker_.expireHolds(settings_.now());
  publish();
}

void BarFeed::publish() {
  scheduleHoldEnd();
  if (inBatch_ || outputGone_) return;
  const auto summary = tracker_.summary();
  // Compared as the bar would show it, so a kind going from in use to held prints nothing.
  auto shown = BarLine(settings_.format, summary, true);
  if (written_ && *written_ == shown) return;
  bool written = true;
  if (!written_) {
    for (const auto& line : BarPreamble(settings_.format))
      written = written && settings_.write(line);
  }
  written =
      written && settings_.write(written_ ? BarLine(settings_.format, summary, false) : shown);
  written_ = std::move(shown);
  if (!written) {
    outputGone_ = true;
    if (settings_.outputClosed) settings_.outputClosed();
  }
}

void BarFeed::scheduleHoldEnd() {
  const auto end = tracker_.nextHoldEnd();
  if (!end || (timerFor_ && *timerFor_ <= *end)) return;
  timerFor_ = end;
  // Timers are made and ended on the main thread only, so the one-shot below knows its own
  // timer before it can fire.
  DispatchQueue::main()->async([weak = weak_from_this(), end = *end] {
    if (auto feed = weak.lock()) feed->startTimerOnMainThread(end);
  });
}

void BarFeed::startTimerOnMainThread(Clock::time_point end) {
  if (timersStopped_) return;
  const double seconds =
      std::max(0.0, std::chrono::duration<double>(end - settings_.now()).count());
  // A repeating timer made one-shot: its first firing invalidates it.
  auto slot = std::make_shared<std::shared_ptr<RunLoopTimer>>();
  auto timer = MainRunLoop::shared().scheduleRepeatingTimer(
      seconds, 0, [slot, weak = weak_from_this(), queue = queue_] {
        if (auto fired = std::move(*slot)) fired->invalidate();
        queue->async([weak] {
          if (auto feed = weak.lock()) feed->expire();
        });
      });
  *slot = timer;
  std::erase_if(timers_, [](const auto& weakTimer) { return weakTimer.expired(); });
  timers_.push_back(timer);
}

}  // namespace harkwell::cli
