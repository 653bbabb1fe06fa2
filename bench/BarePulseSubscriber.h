// A bare libpulse client for the benchmarks' floors: a context on a threaded main loop of its own,
// subscribed to the server's events, with nothing else (no mapping, mirror, queue hop or
// observer). Its handler runs on the client's loop thread, with the loop locked, for every event
// of the subscribed facilities, and may ask the server for more through the context it is given.
#pragma once

#include <pulse/pulseaudio.h>

#include <functional>
#include <string>

namespace harkwell::bench {

class BarePulseSubscriber {
 public:
  using Handler =
      std::function<void(pa_context* context, unsigned facility, unsigned type, std::uint32_t)>;

  // Connects to `server` and subscribes to `mask`; isReady() once the server has answered both,
  // so no event after the constructor returns goes unheard.
  BarePulseSubscriber(const std::string& server, pa_subscription_mask_t mask, Handler handler)
      : handler_(std::move(handler)), loop_(pa_threaded_mainloop_new()) {
    if (!loop_ || pa_threaded_mainloop_start(loop_) < 0) return;
    pa_threaded_mainloop_lock(loop_);
    context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "harkwell-bench-subscriber");
    pa_context_set_state_callback(context_, &BarePulseSubscriber::wake, loop_);
    if (pa_context_connect(context_, server.c_str(), PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0) {
      for (;;) {
        const pa_context_state_t contextState = pa_context_get_state(context_);
        if (contextState == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(contextState)) break;
        pa_threaded_mainloop_wait(loop_);
      }
    }
    if (pa_context_get_state(context_) == PA_CONTEXT_READY) {
      pa_context_set_subscribe_callback(context_, &BarePulseSubscriber::onEvent, this);
      pa_operation* subscribing = pa_context_subscribe(
          context_, mask, [](pa_context* c, int, void* loop) { wake(c, loop); }, loop_);
      if (subscribing) {
        while (pa_operation_get_state(subscribing) == PA_OPERATION_RUNNING) {
          pa_threaded_mainloop_wait(loop_);
        }
        ready_ = pa_operation_get_state(subscribing) == PA_OPERATION_DONE;
        pa_operation_unref(subscribing);
      }
    }
    pa_threaded_mainloop_unlock(loop_);
  }
  ~BarePulseSubscriber() {
    if (!loop_) return;
    pa_threaded_mainloop_stop(loop_);
    if (context_) {
      pa_context_disconnect(context_);
      pa_context_unref(context_);
    }
    pa_threaded_mainloop_free(loop_);
  }
  BarePulseSubscriber(const BarePulseSubscriber&) = delete;
  BarePulseSubscriber& operator=(const BarePulseSubscriber&) = delete;

  bool isReady() const { return ready_; }

 private:
  static void wake(pa_context*, void* loop) {
    pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
  }
  static void onEvent(pa_context* context, pa_subscription_event_type_t event, std::uint32_t index,
                      void* userdata) {
    static_cast<BarePulseSubscriber*>(userdata)->handler_(
        context, event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK,
        event & PA_SUBSCRIPTION_EVENT_TYPE_MASK, index);
  }

  Handler handler_;
  pa_threaded_mainloop* loop_ = nullptr;
  pa_context* context_ = nullptr;
  bool ready_ = false;
};

}  // namespace harkwell::bench
