#include "tests/support/PulseTestClient.h"

#include <pulse/pulseaudio.h>

namespace harkwell::testing {
namespace {

// What an operation's callback reports back to the waiting caller.
struct Answer {
  pa_threaded_mainloop* loop = nullptr;
  bool success = false;
  std::uint32_t index = PA_INVALID_INDEX;
};

void SignalSuccess(pa_context*, int success, void* userdata) {
  auto* answer = static_cast<Answer*>(userdata);
  answer->success = success != 0;
  pa_threaded_mainloop_signal(answer->loop, 0);
}

void SignalStreamSuccess(pa_stream*, int success, void* userdata) {
  auto* answer = static_cast<Answer*>(userdata);
  answer->success = success != 0;
  pa_threaded_mainloop_signal(answer->loop, 0);
}

// Waits, with the loop locked, until `operation` has finished; false when there was none.
bool Finish(pa_threaded_mainloop* loop, pa_operation* operation) {
  if (!operation) return false;
  while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING) {
    pa_threaded_mainloop_wait(loop);
  }
  pa_operation_unref(operation);
  return true;
}

class LoopLock {
 public:
  explicit LoopLock(pa_threaded_mainloop* loop) : loop_(loop) { pa_threaded_mainloop_lock(loop_); }
  ~LoopLock() { pa_threaded_mainloop_unlock(loop_); }
  LoopLock(const LoopLock&) = delete;
  LoopLock& operator=(const LoopLock&) = delete;

 private:
  pa_threaded_mainloop* loop_;
};

void SignalLoop(pa_context*, void* loop) {
  pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
}

void SignalLoopForStream(pa_stream*, void* loop) {
  pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
}

// Recorded data is dropped as it comes, as a program that only meters would.
void DiscardRecorded(pa_stream* stream, std::size_t, void*) {
  const void* data = nullptr;
  std::size_t size = 0;
  while (pa_stream_readable_size(stream) > 0 && pa_stream_peek(stream, &data, &size) == 0) {
    if (size == 0) break;
    pa_stream_drop(stream);
  }
}

}  // namespace

PulseTestClient::PulseTestClient(const std::string& server) {
  loop_ = pa_threaded_mainloop_new();
  if (!loop_ || pa_threaded_mainloop_start(loop_) < 0) return;
  LoopLock lock(loop_);
  context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "harkwell-test-client");
  if (!context_) return;
  pa_context_set_state_callback(context_, &SignalLoop, loop_);
  if (pa_context_connect(context_, server.c_str(), PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) return;
  for (;;) {
    const pa_context_state_t state = pa_context_get_state(context_);
    if (state == PA_CONTEXT_READY) {
      connected_ = true;
      return;
    }
    if (!PA_CONTEXT_IS_GOOD(state)) return;
    pa_threaded_mainloop_wait(loop_);
  }
}

PulseTestClient::~PulseTestClient() {
  if (!loop_) return;
  {
    LoopLock lock(loop_);
    if (context_) {
      pa_context_set_state_callback(context_, nullptr, nullptr);
      pa_context_set_subscribe_callback(context_, nullptr, nullptr);
      pa_context_disconnect(context_);
      pa_context_unref(context_);
    }
  }
  pa_threaded_mainloop_stop(loop_);
  pa_threaded_mainloop_free(loop_);
}

bool PulseTestClient::isConnected() const {
  if (!loop_ || !context_) return false;
  LoopLock lock(loop_);
  return connected_ && pa_context_get_state(context_) == PA_CONTEXT_READY;
}

std::optional<std::uint32_t> PulseTestClient::loadModule(const std::string& name,
                                                         const std::string& arguments) {
  LoopLock lock(loop_);
  Answer answer{loop_};
  Finish(loop_, pa_context_load_module(
                    context_, name.c_str(), arguments.c_str(),
                    [](pa_context*, std::uint32_t index, void* userdata) {
                      auto* result = static_cast<Answer*>(userdata);
                      result->index = index;
                      pa_threaded_mainloop_signal(result->loop, 0);
                    },
                    &answer));
  if (answer.index == PA_INVALID_INDEX) return std::nullopt;
  return answer.index;
}

bool PulseTestClient::unloadModule(std::uint32_t index) {
  LoopLock lock(loop_);
  Answer answer{loop_};
  Finish(loop_, pa_context_unload_module(context_, index, &SignalSuccess, &answer));
  return answer.success;
}

bool PulseTestClient::suspendSource(const std::string& name, bool suspend) {
  LoopLock lock(loop_);
  Answer answer{loop_};
  Finish(loop_, pa_context_suspend_source_by_name(context_, name.c_str(), suspend ? 1 : 0,
                                                  &SignalSuccess, &answer));
  return answer.success;
}

std::optional<std::uint32_t> PulseTestClient::sourceIndex(const std::string& name) {
  LoopLock lock(loop_);
  Answer answer{loop_};
  Finish(loop_, pa_context_get_source_info_by_name(
                    context_, name.c_str(),
                    [](pa_context*, const pa_source_info* info, int, void* userdata) {
                      auto* result = static_cast<Answer*>(userdata);
                      if (info) result->index = info->index;
                      pa_threaded_mainloop_signal(result->loop, 0);
                    },
                    &answer));
  if (answer.index == PA_INVALID_INDEX) return std::nullopt;
  return answer.index;
}

std::optional<std::string> PulseTestClient::sourceState(const std::string& name) {
  struct StateAnswer {
    pa_threaded_mainloop* loop;
    std::optional<std::string> state;
  } answer{loop_, std::nullopt};
  LoopLock lock(loop_);
  Finish(loop_, pa_context_get_source_info_by_name(
                    context_, name.c_str(),
                    [](pa_context*, const pa_source_info* info, int, void* userdata) {
                      auto* result = static_cast<StateAnswer*>(userdata);
                      if (info) {
                        switch (info->state) {
                          case PA_SOURCE_RUNNING:
                            result->state = "RUNNING";
                            break;
                          case PA_SOURCE_IDLE:
                            result->state = "IDLE";
                            break;
                          case PA_SOURCE_SUSPENDED:
                            result->state = "SUSPENDED";
                            break;
                          default:
                            result->state = "INVALID";
                            break;
                        }
                      }
                      pa_threaded_mainloop_signal(result->loop, 0);
                    },
                    &answer));
  return answer.state;
}

std::optional<std::size_t> PulseTestClient::recordingCount(const std::string& name,
                                                           bool uncorkedOnly) {
  const std::optional<std::uint32_t> source = sourceIndex(name);
  if (!source) return std::nullopt;
  struct CountAnswer {
    pa_threaded_mainloop* loop;
    std::uint32_t source;
    bool uncorkedOnly;
    std::size_t count;
  } answer{loop_, *source, uncorkedOnly, 0};
  LoopLock lock(loop_);
  Finish(loop_, pa_context_get_source_output_info_list(
                    context_,
                    [](pa_context*, const pa_source_output_info* info, int, void* userdata) {
                      auto* result = static_cast<CountAnswer*>(userdata);
                      if (info && info->source == result->source &&
                          !(result->uncorkedOnly && info->corked)) {
                        ++result->count;
                      }
                      pa_threaded_mainloop_signal(result->loop, 0);
                    },
                    &answer));
  return answer.count;
}

std::unique_ptr<PulseTestClient::Recording> PulseTestClient::record(const std::string& source,
                                                                    RecordingOptions options) {
  return startRecording(source, options, nullptr);
}

std::unique_ptr<PulseTestClient::Recording> PulseTestClient::replace(
    std::unique_ptr<Recording> previous, const std::string& source) {
  return startRecording(source, RecordingOptions(), std::move(previous));
}

std::unique_ptr<PulseTestClient::Recording> PulseTestClient::startRecording(
    const std::string& source, RecordingOptions options, std::unique_ptr<Recording> previous) {
  LoopLock lock(loop_);
  // A level meter asks for one float peak per fragment at a low rate, as volume controls do.
  const pa_sample_spec format = options.levelMeter ? pa_sample_spec{PA_SAMPLE_FLOAT32LE, 25, 1}
                                                   : pa_sample_spec{PA_SAMPLE_S16LE, 44100, 1};
  pa_stream* stream = pa_stream_new(context_, "harkwell-test-recording", &format, nullptr);
  if (!stream) return nullptr;
  pa_stream_set_state_callback(stream, &SignalLoopForStream, loop_);
  pa_stream_set_read_callback(stream, &DiscardRecorded, nullptr);
  unsigned flags = PA_STREAM_NOFLAGS;
  if (options.startCorked) flags |= PA_STREAM_START_CORKED;
  pa_buffer_attr attributes{};
  const pa_buffer_attr* attributesToUse = nullptr;
  if (options.levelMeter) {
    flags |= PA_STREAM_PEAK_DETECT | PA_STREAM_ADJUST_LATENCY;
    attributes.maxlength = static_cast<std::uint32_t>(-1);
    attributes.fragsize = sizeof(float);
    attributesToUse = &attributes;
  }
  if (pa_stream_connect_record(stream, source.c_str(), attributesToUse,
                               static_cast<pa_stream_flags_t>(flags)) < 0) {
    pa_stream_unref(stream);
    return nullptr;
  }
  // Both requests leave together, before the loop runs again: the server handles them back to
  // back and its subscribers hear of the new stream and the old one's end in one burst.
  if (previous) previous->end();
  for (;;) {
    const pa_stream_state_t state = pa_stream_get_state(stream);
    if (state == PA_STREAM_READY) break;
    if (!PA_STREAM_IS_GOOD(state)) {
      pa_stream_set_state_callback(stream, nullptr, nullptr);
      pa_stream_unref(stream);
      return nullptr;
    }
    pa_threaded_mainloop_wait(loop_);
  }
  return std::unique_ptr<Recording>(new Recording(*this, stream));
}

PulseTestClient::Recording::~Recording() {
  LoopLock lock(client_.loop_);
  end();
}

void PulseTestClient::Recording::end() {
  if (!stream_) return;
  pa_stream_set_state_callback(stream_, nullptr, nullptr);
  pa_stream_set_read_callback(stream_, nullptr, nullptr);
  pa_stream_disconnect(stream_);
  pa_stream_unref(stream_);
  stream_ = nullptr;
}

bool PulseTestClient::Recording::setCorked(bool corked) {
  LoopLock lock(client_.loop_);
  Answer answer{client_.loop_};
  Finish(client_.loop_, pa_stream_cork(stream_, corked ? 1 : 0, &SignalStreamSuccess, &answer));
  return answer.success;
}

bool PulseTestClient::subscribe(EventHandler handler) {
  LoopLock lock(loop_);
  handler_ = std::move(handler);
  pa_context_set_subscribe_callback(
      context_,
      [](pa_context*, pa_subscription_event_type_t event, std::uint32_t index, void* userdata) {
        auto* self = static_cast<PulseTestClient*>(userdata);
        if (self->handler_) {
          self->handler_(event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK,
                         event & PA_SUBSCRIPTION_EVENT_TYPE_MASK, index);
        }
      },
      this);
  Answer answer{loop_};
  const auto mask = static_cast<pa_subscription_mask_t>(
      PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT);
  Finish(loop_, pa_context_subscribe(context_, mask, &SignalSuccess, &answer));
  return answer.success;
}

}  // namespace harkwell::testing
