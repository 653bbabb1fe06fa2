// A live copy of a PipeWire daemon's graph. The connection runs libpipewire's thread loop on a
// thread of its own: it connects (to PIPEWIRE_REMOTE, else the user's "pipewire-0" socket; it
// never starts a daemon), follows the registry, binds every node, device, client and link to
// receive their info (and each device's route params), and hands the whole graph to its handler.
// When the daemon goes away it hands over an empty graph and reconnects with growing delays.
//
// The first graph is handed over once the daemon has answered a round trip after every object it
// announced at connection and every bound object's first info; from then on every change is
// handed over as it arrives, except while a newly bound object's first info is on its way (then
// once the round trip after its bind is answered), and a device's routes once all of a changed
// param have arrived.
//
// Unless told not to, it writes one log line when no daemon answers at start-up (or not in the
// time the owner waits), one when the daemon goes away, and one when it connects after either;
// retries are silent. No line is written on the loop thread or with any lock held
// (HeldLogLines.h).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "HarkwellFoundation/Platform/Linux/HeldLogLines.h"
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireGraph.h"
#include "HarkwellFoundation/Platform/Mutex.h"

struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct pw_registry;
struct spa_source;
struct spa_dict;
struct spa_pod;
struct pw_node_info;
struct pw_link_info;
struct pw_device_info;
struct pw_client_info;

namespace harkwell {

class PipeWireGraphConnection {
 public:
  // Runs on the loop thread, with libpipewire's loop lock held, with the daemon's whole graph:
  // after every change once the graph is complete, and with an empty graph when the daemon goes
  // away. It must not block and must not call back into the connection.
  using GraphHandler = std::function<void(const PipeWireGraph& graph)>;

  struct Options {
    // A socket name or path ("pipewire-0", "/run/user/1000/pipewire-0"); absent: libpipewire's
    // choice (PIPEWIRE_REMOTE, else "pipewire-0" in the runtime folder).
    std::optional<std::string> remote;
    // Delays between reconnection attempts: the first, doubled after each failure up to the last.
    std::chrono::milliseconds firstRetryDelay{100};
    std::chrono::milliseconds longestRetryDelay{2000};
    // Off for a second connection beside the audio service's, whose lines would say the same.
    bool writesLogLines = true;
  };

  // Starts the loop thread and the first attempt, and returns at once. Null only if libpipewire
  // could not make or start its loop.
  static std::unique_ptr<PipeWireGraphConnection> start(Options options, GraphHandler handler);

  // Disconnects and stops the loop thread; the handler is not running and never runs again once
  // this returns. Log lines already queued are still written, perhaps after it returns. Must not
  // be called on the loop thread.
  ~PipeWireGraphConnection();

  PipeWireGraphConnection(const PipeWireGraphConnection&) = delete;
  PipeWireGraphConnection& operator=(const PipeWireGraphConnection&) = delete;

  // Waits at most `timeout` for the first attempt to end: the whole graph was handed over, or no
  // daemon answered. When the timeout passes first, that is logged. Every line due by then is
  // written on the calling thread before this returns. Called once, by the owner.
  void waitForFirstOutcome(std::chrono::milliseconds timeout);

  // Whether a daemon answers on `remote` (absent: libpipewire's choice) within `timeout`: a
  // connection and one round trip. Blocks the calling thread; for choosing a service at start-up.
  static bool DaemonAnswers(const std::optional<std::string>& remote,
                            std::chrono::milliseconds timeout);

 private:
  struct BoundObject;

  PipeWireGraphConnection(Options options, GraphHandler handler);

  // From here on: on the loop thread, with the loop lock held.
  void connect();
  void disconnect();
  void onDaemonLost(const std::string& reason);
  void scheduleReconnect();
  void requestSync();
  void onSynced(int seq);
  void publish();
  void endFirstAttempt();
  void log(std::string line);

  void onGlobal(std::uint32_t id, const char* type, const spa_dict* props);
  void onGlobalRemoved(std::uint32_t id);
  void onNodeInfo(BoundObject& object, const pw_node_info* info);
  void onLinkInfo(BoundObject& object, const pw_link_info* info);
  void onDeviceInfo(BoundObject& object, const pw_device_info* info);
  void onClientInfo(BoundObject& object, const pw_client_info* info);
  void onDeviceParam(BoundObject& object, int seq, std::uint32_t id, const spa_pod* param);

  Options options_;
  GraphHandler handler_;
  pw_thread_loop* loop_ = nullptr;
  pw_context* context_ = nullptr;
  pw_core* core_ = nullptr;
  pw_registry* registry_ = nullptr;
  struct Hooks;
  std::unique_ptr<Hooks> hooks_;
  std::list<BoundObject> bound_;  // a list: each entry's address is handed to libpipewire
  spa_source* retryTimer_ = nullptr;
  spa_source* lostEvent_ = nullptr;
  std::string lostReason_;
  std::chrono::milliseconds retryDelay_;
  PipeWireGraph graph_;
  // Nodes announced by the registry whose first info has not arrived. The registry's properties
  // are only a few of a node's (no "device.api", for one), so a node joins the graph with its info.
  std::map<std::uint32_t, PipeWireNode> nodesAwaitingInfo_;
  int latestSync_ = 0;
  int lastEnumSeq_ = 0;
  bool synchronised_ = false;
  // Objects bound since the latest round trip was asked for, whose first info may still be on
  // its way; and a change held back until it has arrived.
  bool awaitingNewObjects_ = false;
  bool changeHeld_ = false;
  // Between a failed first attempt or a lost daemon and the next synchronisation.
  bool inOutage_ = false;

  Mutex outcomeMutex_;
  CondVar outcomeChanged_;
  bool firstAttemptEnded_ HARKWELL_GUARDED_BY(outcomeMutex_) = false;

  HeldLogLines log_;
};

}  // namespace harkwell
