#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioServerConnection.h"

#include <pulse/pulseaudio.h>

#include <algorithm>

#include "HarkwellFoundation/Platform/SystemLog.h"

namespace harkwell {
namespace {

constexpr const char* kClientName = "HarkwellFoundation";
constexpr const char* kLogQueueLabel = "com.harkwell.HarkwellFoundation.PulseAudioLog";

void Release(pa_operation* operation) {
  if (operation) pa_operation_unref(operation);
}

// Replaces or inserts `value` under `index`; whether anything changed.
template <class Value>
bool Store(std::map<std::uint32_t, Value>& map, std::uint32_t index, Value value) {
  auto found = map.find(index);
  if (found != map.end() && found->second == value) return false;
  map.insert_or_assign(index, std::move(value));
  return true;
}

// Where each kind of record is kept, and how it is copied from libpulse's.
constexpr auto kSources = &PulseServerState::sources;
constexpr auto kSinks = &PulseServerState::sinks;
constexpr auto kCards = &PulseServerState::cards;
constexpr auto kClients = &PulseServerState::clients;
constexpr auto kRecordings = &PulseServerState::recordingStreams;
constexpr auto kPlaybacks = &PulseServerState::playbackStreams;
constexpr auto kSource = &PulseEndpointFromSourceInfo;
constexpr auto kSink = &PulseEndpointFromSinkInfo;
constexpr auto kCard = &PulseCardFromCardInfo;
constexpr auto kClient = &PulseClientFromClientInfo;
constexpr auto kRecording = &PulseRecordingStreamFromSourceOutputInfo;
constexpr auto kPlayback = &PulsePlaybackStreamFromSinkInputInfo;

}  // namespace

std::unique_ptr<PulseAudioServerConnection> PulseAudioServerConnection::start(
    Options options, StateHandler handler) {
  std::unique_ptr<PulseAudioServerConnection> connection(
      new PulseAudioServerConnection(std::move(options), std::move(handler)));
  if (!connection->loop_) return nullptr;
  pa_threaded_mainloop_set_name(connection->loop_, "harkwell-pulse");
  if (pa_threaded_mainloop_start(connection->loop_) < 0) {
    pa_threaded_mainloop_free(connection->loop_);
    connection->loop_ = nullptr;
    return nullptr;
  }
  pa_threaded_mainloop_lock(connection->loop_);
  connection->connect();
  pa_threaded_mainloop_unlock(connection->loop_);
  return connection;
}

PulseAudioServerConnection::PulseAudioServerConnection(Options options, StateHandler handler)
    : options_(std::move(options)),
      handler_(std::move(handler)),
      loop_(pa_threaded_mainloop_new()),
      retryDelay_(options_.firstRetryDelay),
      logQueue_(DispatchQueue::createSerial(kLogQueueLabel)) {}

PulseAudioServerConnection::~PulseAudioServerConnection() {
  if (!loop_) return;
  pa_threaded_mainloop_lock(loop_);
  pa_mainloop_api* api = pa_threaded_mainloop_get_api(loop_);
  if (retryTimer_) api->time_free(retryTimer_);
  retryTimer_ = nullptr;
  if (context_) {
    pa_context* context = context_;
    context_ = nullptr;
    pa_context_set_state_callback(context, nullptr, nullptr);
    pa_context_set_subscribe_callback(context, nullptr, nullptr);
    pa_context_disconnect(context);
    pa_context_unref(context);
  }
  releaseRetiredContexts();
  pa_threaded_mainloop_unlock(loop_);
  pa_threaded_mainloop_stop(loop_);
  pa_threaded_mainloop_free(loop_);
  // Only if the owner never waited for the first outcome: nothing else writes these lines.
  queueHeldLines();
}

void PulseAudioServerConnection::waitForFirstOutcome(std::chrono::milliseconds timeout) {
  bool ended = false;
  {
    MutexLock lock(outcomeMutex_);
    ended = outcomeChanged_.waitFor(outcomeMutex_, timeout, [&] {
      outcomeMutex_.assertHeld();
      return firstAttemptEnded_;
    });
  }
  if (!ended) {
    // The loop thread may end the attempt meanwhile; under its lock the answer is final. The line
    // is only held here, after any the loop thread logged before it, and written below.
    pa_threaded_mainloop_lock(loop_);
    if (!synchronised_ && !inOutage_) {
      inOutage_ = true;
      log("PulseAudio: the server did not answer within " + std::to_string(timeout.count()) +
          " ms; devices will appear when it does");
    }
    pa_threaded_mainloop_unlock(loop_);
  }
  // No lock is held from here on.
  writeHeldLines();
}

void PulseAudioServerConnection::endFirstAttempt() {
  {
    MutexLock lock(outcomeMutex_);
    if (firstAttemptEnded_) return;
    firstAttemptEnded_ = true;
  }
  outcomeChanged_.notifyAll();
}

void PulseAudioServerConnection::log(std::string line) {
  MutexLock lock(logMutex_);
  if (holdingLines_) {
    heldLines_.push_back(std::move(line));
    return;
  }
  // Each line keeps the queue alive: if the connection lets go of the queue while lines wait,
  // the queue's thread writes them and then ends on its own, so the destructor never waits for
  // the log sink.
  logQueue_->async([queue = logQueue_, line = std::move(line)] { SystemLog(line); });
}

void PulseAudioServerConnection::writeHeldLines() {
  // Lines logged while these are written are held too, and written in the next round.
  for (;;) {
    std::vector<std::string> lines;
    {
      MutexLock lock(logMutex_);
      if (!holdingLines_) return;
      if (heldLines_.empty()) {
        holdingLines_ = false;
        return;
      }
      lines.swap(heldLines_);
    }
    for (const std::string& line : lines) SystemLog(line);
  }
}

void PulseAudioServerConnection::queueHeldLines() {
  std::vector<std::string> lines;
  {
    MutexLock lock(logMutex_);
    if (!holdingLines_) return;
    holdingLines_ = false;
    lines.swap(heldLines_);
  }
  // Only the destructor calls this, once the loop thread has stopped: no line can come between.
  for (std::string& line : lines) log(std::move(line));
}

void PulseAudioServerConnection::releaseRetiredContexts() {
  for (pa_context* context : retired_) pa_context_unref(context);
  retired_.clear();
}

void PulseAudioServerConnection::connect() {
  releaseRetiredContexts();
  pa_mainloop_api* api = pa_threaded_mainloop_get_api(loop_);
  pa_proplist* properties = pa_proplist_new();
  pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, kClientName);
  pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "org.harkwell.HarkwellFoundation");
  context_ = pa_context_new_with_proplist(api, kClientName, properties);
  pa_proplist_free(properties);
  if (!context_) {
    // Only when libpulse is out of memory; try again later like any failed attempt.
    scheduleReconnect();
    return;
  }
  pa_context_set_state_callback(
      context_,
      [](pa_context* context, void* userdata) {
        auto* self = static_cast<PulseAudioServerConnection*>(userdata);
        if (context != self->context_) return;
        switch (pa_context_get_state(context)) {
          case PA_CONTEXT_READY:
            self->onReady();
            break;
          case PA_CONTEXT_FAILED:
          case PA_CONTEXT_TERMINATED:
            self->onFailed(context);
            break;
          default:
            break;
        }
      },
      this);
  // A monitoring library must not start a sound server as a side effect: no autospawn.
  const char* server = options_.server ? options_.server->c_str() : nullptr;
  pa_context* attempt = context_;
  if (pa_context_connect(attempt, server, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 &&
      context_ == attempt) {
    // libpulse usually reports the failure through the state callback already; if it did not,
    // the attempt ends here.
    onFailed(attempt);
  }
}

void PulseAudioServerConnection::onReady() {
  pa_context* context = context_;
  pa_context_set_subscribe_callback(
      context,
      [](pa_context* c, pa_subscription_event_type_t event, std::uint32_t index, void* userdata) {
        auto* self = static_cast<PulseAudioServerConnection*>(userdata);
        if (c != self->context_) return;
        self->onServerEvent(event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK,
                            event & PA_SUBSCRIPTION_EVENT_TYPE_MASK, index);
      },
      this);
  // Subscribing before listing: a change made while the lists are read is fetched again after.
  const auto mask = static_cast<pa_subscription_mask_t>(
      PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_CARD |
      PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT | PA_SUBSCRIPTION_MASK_SINK_INPUT |
      PA_SUBSCRIPTION_MASK_CLIENT);
  Release(pa_context_subscribe(context, mask, nullptr, nullptr));

  state_ = PulseServerState();
  listsPending_ = 6;
  fetchesPending_ = 0;
  unpublishedChange_ = false;
  Release(
      pa_context_get_card_info_list(context, &received<pa_card_info, kCards, kCard, true>, this));
  // Clients before streams: a stream's client is known when the stream is.
  Release(pa_context_get_client_info_list(
      context, &received<pa_client_info, kClients, kClient, true>, this));
  Release(
      pa_context_get_sink_info_list(context, &received<pa_sink_info, kSinks, kSink, true>, this));
  Release(pa_context_get_source_info_list(
      context, &received<pa_source_info, kSources, kSource, true>, this));
  Release(pa_context_get_source_output_info_list(
      context, &received<pa_source_output_info, kRecordings, kRecording, true>, this));
  Release(pa_context_get_sink_input_info_list(
      context, &received<pa_sink_input_info, kPlaybacks, kPlayback, true>, this));
}

void PulseAudioServerConnection::settle() {
  // Answers come in the order the requests went out, and events in the order things happened, so
  // the copy matches one moment of the server only when nothing asked for is still on its way.
  // Handing it over earlier could show half a change: the end of one stream without the stream
  // that took its place, a microphone idle for a moment while it never was.
  if (listsPending_ > 0 || fetchesPending_ > 0) return;
  if (!synchronised_) {
    synchronised_ = true;
    retryDelay_ = options_.firstRetryDelay;
    if (inOutage_) {
      inOutage_ = false;
      const char* server = context_ ? pa_context_get_server(context_) : nullptr;
      log(std::string("PulseAudio: connected to the server at ") +
          (server ? server : "(unknown address)"));
    }
    unpublishedChange_ = false;
    handler_(state_);
    endFirstAttempt();
    return;
  }
  if (!unpublishedChange_) return;
  unpublishedChange_ = false;
  handler_(state_);
}

void PulseAudioServerConnection::onFailed(pa_context* context) {
  const std::string reason = pa_strerror(pa_context_errno(context));
  pa_context_set_state_callback(context, nullptr, nullptr);
  pa_context_set_subscribe_callback(context, nullptr, nullptr);
  pa_context_disconnect(context);
  retired_.push_back(context);
  context_ = nullptr;
  listsPending_ = 0;
  fetchesPending_ = 0;
  unpublishedChange_ = false;

  const bool hadState = synchronised_;
  synchronised_ = false;
  state_ = PulseServerState();
  if (!inOutage_) {
    inOutage_ = true;
    if (hadState) {
      log("PulseAudio: lost the server (" + reason + "); reconnecting");
    } else {
      log("PulseAudio: no server answered (" + reason + "); devices will appear when one starts");
    }
  }
  // Every device leaves with the server.
  if (hadState) handler_(state_);
  endFirstAttempt();
  scheduleReconnect();
}

void PulseAudioServerConnection::scheduleReconnect() {
  pa_mainloop_api* api = pa_threaded_mainloop_get_api(loop_);
  timeval when;
  pa_gettimeofday(&when);
  pa_timeval_add(&when, static_cast<pa_usec_t>(retryDelay_.count()) * PA_USEC_PER_MSEC);
  retryDelay_ = std::min(retryDelay_ * 2, options_.longestRetryDelay);
  retryTimer_ = api->time_new(
      api, &when,
      [](pa_mainloop_api* timerApi, pa_time_event* timer, const timeval*, void* userdata) {
        auto* self = static_cast<PulseAudioServerConnection*>(userdata);
        timerApi->time_free(timer);
        self->retryTimer_ = nullptr;
        self->connect();
      },
      this);
}

void PulseAudioServerConnection::onServerEvent(unsigned facility, unsigned type,
                                               std::uint32_t index) {
  if (type != PA_SUBSCRIPTION_EVENT_REMOVE) {
    fetch(facility, index);
    return;
  }
  bool changed = false;
  switch (facility) {
    case PA_SUBSCRIPTION_EVENT_SOURCE:
      changed = state_.sources.erase(index) != 0;
      break;
    case PA_SUBSCRIPTION_EVENT_SINK:
      changed = state_.sinks.erase(index) != 0;
      break;
    case PA_SUBSCRIPTION_EVENT_CARD:
      changed = state_.cards.erase(index) != 0;
      break;
    case PA_SUBSCRIPTION_EVENT_CLIENT:
      changed = state_.clients.erase(index) != 0;
      break;
    case PA_SUBSCRIPTION_EVENT_SOURCE_OUTPUT:
      changed = state_.recordingStreams.erase(index) != 0;
      break;
    case PA_SUBSCRIPTION_EVENT_SINK_INPUT:
      changed = state_.playbackStreams.erase(index) != 0;
      break;
    default:
      break;
  }
  if (changed) unpublishedChange_ = true;
  settle();
}

void PulseAudioServerConnection::fetch(unsigned facility, std::uint32_t index) {
  // A fetch that finds nothing (the object went away meanwhile) is followed by its removal event.
  pa_operation* operation = nullptr;
  switch (facility) {
    case PA_SUBSCRIPTION_EVENT_SOURCE:
      operation = pa_context_get_source_info_by_index(
          context_, index, &received<pa_source_info, kSources, kSource, false>, this);
      break;
    case PA_SUBSCRIPTION_EVENT_SINK:
      operation = pa_context_get_sink_info_by_index(
          context_, index, &received<pa_sink_info, kSinks, kSink, false>, this);
      break;
    case PA_SUBSCRIPTION_EVENT_CARD:
      operation = pa_context_get_card_info_by_index(
          context_, index, &received<pa_card_info, kCards, kCard, false>, this);
      break;
    case PA_SUBSCRIPTION_EVENT_CLIENT:
      operation = pa_context_get_client_info(
          context_, index, &received<pa_client_info, kClients, kClient, false>, this);
      break;
    case PA_SUBSCRIPTION_EVENT_SOURCE_OUTPUT:
      operation = pa_context_get_source_output_info(
          context_, index, &received<pa_source_output_info, kRecordings, kRecording, false>, this);
      break;
    case PA_SUBSCRIPTION_EVENT_SINK_INPUT:
      operation = pa_context_get_sink_input_info(
          context_, index, &received<pa_sink_input_info, kPlaybacks, kPlayback, false>, this);
      break;
    default:
      break;
  }
  if (!operation) return;
  ++fetchesPending_;
  pa_operation_unref(operation);
}

template <class Info, auto Member, auto Convert, bool kList>
void PulseAudioServerConnection::received(pa_context* context, const Info* info, int eol,
                                          void* userdata) {
  auto* self = static_cast<PulseAudioServerConnection*>(userdata);
  if (context != self->context_) return;  // about a context that has failed since
  if (info && Store(self->state_.*Member, info->index, Convert(*info))) {
    self->unpublishedChange_ = true;
  }
  // Lists and single fetches alike end with one call that has `eol` set (negative on error or
  // when the object went away).
  if (eol == 0) return;
  if constexpr (kList) {
    --self->listsPending_;
  } else {
    --self->fetchesPending_;
  }
  self->settle();
}

}  // namespace harkwell
