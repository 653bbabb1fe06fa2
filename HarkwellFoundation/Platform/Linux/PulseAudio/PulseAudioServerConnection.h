// A live copy of a PulseAudio server's state. The connection runs libpulse's threaded main loop on
// a thread of its own: it connects (libpulse finds the server as every client does: PULSE_SERVER,
// client.conf, the user's socket; it never starts a server), subscribes to changes, fetches each
// source, sink, card, client, recording stream or playback stream that changed, and hands the whole
// state to its handler. When the server goes away it hands over an empty state and reconnects with
// growing delays.
//
// It writes one log line when no server answers at start-up (or not in the time the owner waits),
// one when the server goes away, and one when it connects after either; retries are silent. No
// line is written on the loop thread or with any lock held (the loop thread always holds
// libpulse's loop lock, so a log sink that waited there on a thread busy with this connection
// would never return). Lines written before waitForFirstOutcome() returns are written by its
// caller, on its own thread, before it returns; later lines are written in order on a serial
// queue of the connection's own.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioServerState.h"
#include "HarkwellFoundation/Platform/Mutex.h"

struct pa_threaded_mainloop;
struct pa_context;
struct pa_time_event;

namespace harkwell {

class PulseAudioServerConnection {
 public:
  // Runs on the loop thread, with the server's whole state: once the state is complete, then after
  // changes whenever no fetch is still on its way (so a change that reached the copy in parts is
  // handed over whole), and with an empty state when the server goes away. It must not block and
  // must not call back into the connection.
  using StateHandler = std::function<void(const PulseServerState& state)>;

  struct Options {
    // A libpulse server string ("unix:/run/user/1000/pulse/native"); absent: libpulse's choice.
    std::optional<std::string> server;
    // Delays between reconnection attempts: the first, doubled after each failure up to the last.
    std::chrono::milliseconds firstRetryDelay{100};
    std::chrono::milliseconds longestRetryDelay{2000};
  };

  // Starts the loop thread and the first attempt, and returns at once. Null only if libpulse could
  // not start its loop.
  static std::unique_ptr<PulseAudioServerConnection> start(Options options, StateHandler handler);

  // Disconnects and stops the loop thread; the handler is not running and never runs again once
  // this returns. Log lines already queued are still written, perhaps after it returns: it does
  // not wait for the log sink. Must not be called on the loop thread.
  ~PulseAudioServerConnection();

  PulseAudioServerConnection(const PulseAudioServerConnection&) = delete;
  PulseAudioServerConnection& operator=(const PulseAudioServerConnection&) = delete;

  // Waits at most `timeout` for the first attempt to end: the whole state was handed over, or no
  // server answered. When the timeout passes first, that is logged, and so is the connection when
  // it comes. Every line due by then is written on the calling thread before this returns (with
  // no lock held), so the owner's caller finds them logged. Called once, by the owner.
  void waitForFirstOutcome(std::chrono::milliseconds timeout);

 private:
  PulseAudioServerConnection(Options options, StateHandler handler);

  // From here to received(): on the loop thread, with libpulse's loop lock held.
  void connect();
  void onReady();
  void onFailed(pa_context* context);
  void scheduleReconnect();
  // Hands the state over when no list or fetch is outstanding: the first time once synchronised,
  // later when something changed since the last handover.
  void settle();
  void endFirstAttempt();
  void releaseRetiredContexts();

  void onServerEvent(unsigned facility, unsigned type, std::uint32_t index);
  void fetch(unsigned facility, std::uint32_t index);

  // libpulse's callback for one kind of record (Info): keeps a copy made by Convert in the state's
  // Member map; a list's final call completes that list, a single fetch publishes a change.
  template <class Info, auto Member, auto Convert, bool kList>
  static void received(pa_context* context, const Info* info, int eol, void* userdata);

  // On any thread, under any lock: writes `line` later, after every line logged before it. Until
  // waitForFirstOutcome() writes them itself lines are held back; then they go to logQueue_.
  void log(std::string line);
  // Writes the held lines on the calling thread, then sends later lines to logQueue_.
  void writeHeldLines();
  // Sends the held lines to logQueue_, and any later ones.
  void queueHeldLines();

  Options options_;
  StateHandler handler_;
  pa_threaded_mainloop* loop_ = nullptr;
  pa_context* context_ = nullptr;
  // Failed contexts, released outside libpulse's callbacks about them.
  std::vector<pa_context*> retired_;
  pa_time_event* retryTimer_ = nullptr;
  std::chrono::milliseconds retryDelay_;
  PulseServerState state_;
  int listsPending_ = 0;
  int fetchesPending_ = 0;
  bool unpublishedChange_ = false;
  bool synchronised_ = false;
  // Between a failed first attempt or a lost server and the next synchronisation.
  bool inOutage_ = false;

  Mutex outcomeMutex_;
  CondVar outcomeChanged_;
  bool firstAttemptEnded_ HARKWELL_GUARDED_BY(outcomeMutex_) = false;

  std::shared_ptr<DispatchQueue> logQueue_;
  Mutex logMutex_;
  // Lines not yet queued, and whether new lines join them.
  std::vector<std::string> heldLines_ HARKWELL_GUARDED_BY(logMutex_);
  bool holdingLines_ HARKWELL_GUARDED_BY(logMutex_) = true;
};

}  // namespace harkwell
