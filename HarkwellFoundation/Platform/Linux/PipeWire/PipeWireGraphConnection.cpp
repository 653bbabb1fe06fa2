#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireGraphConnection.h"

#include <pipewire/pipewire.h>
#include <spa/param/param.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireRouteParam.h"

// libpipewire's method calls (pw_core_sync, pw_registry_bind, ...) are C macros with C casts.
#pragma GCC diagnostic ignored "-Wold-style-cast"

namespace harkwell {
namespace {

constexpr const char* kClientName = "HarkwellFoundation";
constexpr const char* kLogQueueLabel = "com.harkwell.HarkwellFoundation.PipeWireLog";

// The device params the connection follows, by slot.
constexpr std::array<std::uint32_t, 2> kRouteParams{SPA_PARAM_EnumRoute, SPA_PARAM_Route};

enum class ObjectKind { Node, Device, Link, Client };

PipeWireProperties PropertiesOf(const spa_dict* dict) {
  PipeWireProperties properties;
  if (!dict) return properties;
  for (std::uint32_t i = 0; i < dict->n_items; ++i) {
    if (dict->items[i].key && dict->items[i].value) {
      properties[dict->items[i].key] = dict->items[i].value;
    }
  }
  return properties;
}

std::uint32_t NumberProperty(const PipeWireProperties& properties, const char* key) {
  auto found = properties.find(key);
  if (found == properties.end()) return 0;
  return static_cast<std::uint32_t>(std::strtoul(found->second.c_str(), nullptr, 10));
}

PipeWireNodeState NodeStateOf(pw_node_state state) {
  switch (state) {
    case PW_NODE_STATE_RUNNING:
      return PipeWireNodeState::Running;
    case PW_NODE_STATE_IDLE:
      return PipeWireNodeState::Idle;
    case PW_NODE_STATE_SUSPENDED:
      return PipeWireNodeState::Suspended;
    case PW_NODE_STATE_CREATING:
      return PipeWireNodeState::Creating;
    default:
      return PipeWireNodeState::Error;
  }
}

PipeWireLinkState LinkStateOf(pw_link_state state) {
  switch (state) {
    case PW_LINK_STATE_UNLINKED:
      return PipeWireLinkState::Unlinked;
    case PW_LINK_STATE_INIT:
      return PipeWireLinkState::Init;
    case PW_LINK_STATE_NEGOTIATING:
      return PipeWireLinkState::Negotiating;
    case PW_LINK_STATE_ALLOCATING:
      return PipeWireLinkState::Allocating;
    case PW_LINK_STATE_PAUSED:
      return PipeWireLinkState::Paused;
    case PW_LINK_STATE_ACTIVE:
      return PipeWireLinkState::Active;
    default:
      return PipeWireLinkState::Error;
  }
}

timespec TimespecOf(std::chrono::milliseconds delay) {
  timespec value{};
  value.tv_sec = static_cast<time_t>(delay.count() / 1000);
  value.tv_nsec = static_cast<long>(delay.count() % 1000) * 1000000L;
  // A zero timespec disarms a timer.
  if (value.tv_sec == 0 && value.tv_nsec == 0) value.tv_nsec = 1;
  return value;
}

// The remote a connection reaches, for log lines.
std::string RemoteNameOf(const std::optional<std::string>& remote) {
  if (remote) return *remote;
  if (const char* fromEnvironment = std::getenv("PIPEWIRE_REMOTE")) return fromEnvironment;
  return "pipewire-0";
}

pw_properties* CoreProperties(const std::optional<std::string>& remote) {
  pw_properties* properties = pw_properties_new(PW_KEY_APP_NAME, kClientName, nullptr);
  if (remote) pw_properties_set(properties, PW_KEY_REMOTE_NAME, remote->c_str());
  return properties;
}

}  // namespace

// One node, device or link the connection has bound, to receive its info (and params).
struct PipeWireGraphConnection::BoundObject {
  PipeWireGraphConnection* owner = nullptr;
  std::uint32_t id = 0;
  ObjectKind kind = ObjectKind::Node;
  pw_proxy* proxy = nullptr;
  spa_hook listener{};
  // Devices only, one slot per followed param: the param info flags last seen (their serial bit
  // changes with the param), the enumeration being collected and its sequence number.
  std::array<std::optional<std::uint32_t>, kRouteParams.size()> paramFlags;
  std::array<int, kRouteParams.size()> enumSeq{};
  std::array<bool, kRouteParams.size()> collecting{};
  std::array<std::vector<PipeWireRoute>, kRouteParams.size()> collected;
};

struct PipeWireGraphConnection::Hooks {
  spa_hook core{};
  spa_hook registry{};
};

std::unique_ptr<PipeWireGraphConnection> PipeWireGraphConnection::start(Options options,
                                                                        GraphHandler handler) {
  pw_init(nullptr, nullptr);
  std::unique_ptr<PipeWireGraphConnection> connection(
      new PipeWireGraphConnection(std::move(options), std::move(handler)));
  if (!connection->loop_ || !connection->context_) return nullptr;
  pw_loop* loop = pw_thread_loop_get_loop(connection->loop_);
  connection->retryTimer_ = pw_loop_add_timer(
      loop,
      [](void* data, std::uint64_t) { static_cast<PipeWireGraphConnection*>(data)->connect(); },
      connection.get());
  connection->lostEvent_ = pw_loop_add_event(
      loop,
      [](void* data, std::uint64_t) {
        auto* self = static_cast<PipeWireGraphConnection*>(data);
        self->onDaemonLost(self->lostReason_);
      },
      connection.get());
  if (pw_thread_loop_start(connection->loop_) < 0) return nullptr;
  pw_thread_loop_lock(connection->loop_);
  connection->connect();
  pw_thread_loop_unlock(connection->loop_);
  return connection;
}

PipeWireGraphConnection::PipeWireGraphConnection(Options options, GraphHandler handler)
    : options_(std::move(options)),
      handler_(std::move(handler)),
      hooks_(std::make_unique<Hooks>()),
      retryDelay_(options_.firstRetryDelay),
      log_(kLogQueueLabel) {
  loop_ = pw_thread_loop_new("harkwell-pipewire", nullptr);
  if (loop_) context_ = pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0);
}

PipeWireGraphConnection::~PipeWireGraphConnection() {
  if (loop_) {
    pw_thread_loop_lock(loop_);
    disconnect();
    pw_loop* loop = pw_thread_loop_get_loop(loop_);
    if (retryTimer_) pw_loop_destroy_source(loop, retryTimer_);
    if (lostEvent_) pw_loop_destroy_source(loop, lostEvent_);
    retryTimer_ = nullptr;
    lostEvent_ = nullptr;
    pw_thread_loop_unlock(loop_);
    pw_thread_loop_stop(loop_);
  }
  if (context_) pw_context_destroy(context_);
  if (loop_) pw_thread_loop_destroy(loop_);
  // Only if the owner never waited for the first outcome: nothing else writes these lines.
  log_.queueHeldLines();
}

void PipeWireGraphConnection::waitForFirstOutcome(std::chrono::milliseconds timeout) {
  bool ended = false;
  {
    MutexLock lock(outcomeMutex_);
    ended = outcomeChanged_.waitFor(outcomeMutex_, timeout, [&] {
      outcomeMutex_.assertHeld();
      return firstAttemptEnded_;
    });
  }
  if (!ended) {
    // The loop thread may end the attempt meanwhile; under its lock the answer is final.
    pw_thread_loop_lock(loop_);
    if (!synchronised_ && !inOutage_) {
      inOutage_ = true;
      log("PipeWire: the daemon did not answer within " + std::to_string(timeout.count()) +
          " ms; devices will appear when it does");
    }
    pw_thread_loop_unlock(loop_);
  }
  // No lock is held from here on.
  log_.writeHeldLines();
}

void PipeWireGraphConnection::log(std::string line) {
  if (options_.writesLogLines) log_.log(std::move(line));
}

void PipeWireGraphConnection::endFirstAttempt() {
  {
    MutexLock lock(outcomeMutex_);
    if (firstAttemptEnded_) return;
    firstAttemptEnded_ = true;
  }
  outcomeChanged_.notifyAll();
}

void PipeWireGraphConnection::connect() {
  core_ = pw_context_connect(context_, CoreProperties(options_.remote), 0);
  if (!core_) {
    // libpipewire says EHOSTDOWN when no socket it tried accepted the connection.
    const std::string reason =
        errno == EHOSTDOWN ? "nothing listens on its socket" : std::strerror(errno);
    if (!inOutage_) {
      inOutage_ = true;
      log("PipeWire: no daemon answered at " + RemoteNameOf(options_.remote) + " (" + reason +
          "); devices will appear when one starts");
    }
    endFirstAttempt();
    scheduleReconnect();
    return;
  }
  static const pw_core_events coreEvents = [] {
    pw_core_events events{};
    events.version = PW_VERSION_CORE_EVENTS;
    events.done = [](void* data, std::uint32_t id, int seq) {
      if (id == PW_ID_CORE) static_cast<PipeWireGraphConnection*>(data)->onSynced(seq);
    };
    events.error = [](void* data, std::uint32_t id, int, int res, const char* message) {
      // Only a broken connection ends it: the core also reports errors that concern one object
      // (a request about something the daemon has just destroyed comes back as "unknown
      // resource"), and the connection goes on working after those.
      if (id != PW_ID_CORE || res != -EPIPE) return;
      auto* self = static_cast<PipeWireGraphConnection*>(data);
      self->lostReason_ = std::strerror(-res);
      if (message && *message) self->lostReason_ += std::string(": ") + message;
      // The core cannot be torn down from inside its own callback; the loop does it next.
      pw_loop_signal_event(pw_thread_loop_get_loop(self->loop_), self->lostEvent_);
    };
    return events;
  }();
  pw_core_add_listener(core_, &hooks_->core, &coreEvents, this);

  static const pw_registry_events registryEvents = [] {
    pw_registry_events events{};
    events.version = PW_VERSION_REGISTRY_EVENTS;
    events.global = [](void* data, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
                       const spa_dict* props) {
      static_cast<PipeWireGraphConnection*>(data)->onGlobal(id, type, props);
    };
    events.global_remove = [](void* data, std::uint32_t id) {
      static_cast<PipeWireGraphConnection*>(data)->onGlobalRemoved(id);
    };
    return events;
  }();
  registry_ = pw_core_get_registry(core_, PW_VERSION_REGISTRY, 0);
  pw_registry_add_listener(registry_, &hooks_->registry, &registryEvents, this);
  requestSync();
}

void PipeWireGraphConnection::disconnect() {
  for (BoundObject& object : bound_) {
    spa_hook_remove(&object.listener);
    pw_proxy_destroy(object.proxy);
  }
  bound_.clear();
  if (registry_) {
    spa_hook_remove(&hooks_->registry);
    pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
    registry_ = nullptr;
  }
  if (core_) {
    spa_hook_remove(&hooks_->core);
    pw_core_disconnect(core_);
    core_ = nullptr;
  }
  graph_ = PipeWireGraph();
  nodesAwaitingInfo_.clear();
  awaitingNewObjects_ = false;
  changeHeld_ = false;
}

void PipeWireGraphConnection::onDaemonLost(const std::string& reason) {
  if (!core_) return;
  const bool hadGraph = synchronised_;
  disconnect();
  synchronised_ = false;
  if (!inOutage_) {
    inOutage_ = true;
    if (hadGraph) {
      log("PipeWire: lost the daemon (" + reason + "); reconnecting");
    } else {
      log("PipeWire: no daemon answered at " + RemoteNameOf(options_.remote) + " (" + reason +
          "); devices will appear when one starts");
    }
  }
  // Every device leaves with the daemon.
  if (hadGraph) handler_(graph_);
  endFirstAttempt();
  scheduleReconnect();
}

void PipeWireGraphConnection::scheduleReconnect() {
  timespec when = TimespecOf(retryDelay_);
  retryDelay_ = std::min(retryDelay_ * 2, options_.longestRetryDelay);
  pw_loop_update_timer(pw_thread_loop_get_loop(loop_), retryTimer_, &when, nullptr, false);
}

void PipeWireGraphConnection::requestSync() {
  latestSync_ = pw_core_sync(core_, PW_ID_CORE, latestSync_);
}

void PipeWireGraphConnection::onSynced(int seq) {
  // Only the latest round trip tells that everything asked for before has arrived.
  if (seq != latestSync_) return;
  bool routesChanged = false;
  for (BoundObject& object : bound_) {
    if (object.kind != ObjectKind::Device) continue;
    auto device = graph_.devices.find(object.id);
    for (std::size_t slot = 0; slot < kRouteParams.size(); ++slot) {
      if (!object.collecting[slot]) continue;
      object.collecting[slot] = false;
      if (device == graph_.devices.end()) continue;
      auto& routes = slot == 0 ? device->second.routes : device->second.activeRoutes;
      if (routes != object.collected[slot]) {
        routes = std::move(object.collected[slot]);
        routesChanged = true;
      }
      object.collected[slot].clear();
    }
  }
  if (!synchronised_) {
    synchronised_ = true;
    retryDelay_ = options_.firstRetryDelay;
    if (inOutage_) {
      inOutage_ = false;
      log("PipeWire: connected to the daemon at " + RemoteNameOf(options_.remote));
    }
    publish();
    endFirstAttempt();
    return;
  }
  awaitingNewObjects_ = false;
  if (routesChanged || changeHeld_) publish();
}

void PipeWireGraphConnection::publish() {
  if (!synchronised_) return;
  if (awaitingNewObjects_) {
    changeHeld_ = true;
    return;
  }
  changeHeld_ = false;
  handler_(graph_);
}

void PipeWireGraphConnection::onGlobal(std::uint32_t id, const char* type, const spa_dict* props) {
  if (!type) return;
  ObjectKind kind;
  std::uint32_t version = 0;
  if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
    kind = ObjectKind::Node;
    version = PW_VERSION_NODE;
    nodesAwaitingInfo_[id] = PipeWireNode{id, PipeWireNodeState::Creating, PropertiesOf(props)};
  } else if (std::strcmp(type, PW_TYPE_INTERFACE_Device) == 0) {
    kind = ObjectKind::Device;
    version = PW_VERSION_DEVICE;
    graph_.devices[id] = PipeWireDevice{id, PropertiesOf(props), {}, {}};
  } else if (std::strcmp(type, PW_TYPE_INTERFACE_Client) == 0) {
    kind = ObjectKind::Client;
    version = PW_VERSION_CLIENT;
    graph_.clients[id] = PipeWireClient{id, PropertiesOf(props)};
  } else if (std::strcmp(type, PW_TYPE_INTERFACE_Link) == 0) {
    kind = ObjectKind::Link;
    version = PW_VERSION_LINK;
    const PipeWireProperties properties = PropertiesOf(props);
    PipeWireLink link;
    link.id = id;
    link.outputNodeID = NumberProperty(properties, PW_KEY_LINK_OUTPUT_NODE);
    link.outputPortID = NumberProperty(properties, PW_KEY_LINK_OUTPUT_PORT);
    link.inputNodeID = NumberProperty(properties, PW_KEY_LINK_INPUT_NODE);
    link.inputPortID = NumberProperty(properties, PW_KEY_LINK_INPUT_PORT);
    graph_.links[id] = link;
  } else {
    return;
  }

  auto* proxy = static_cast<pw_proxy*>(pw_registry_bind(registry_, id, type, version, 0));
  if (!proxy && kind == ObjectKind::Node) {
    // No info will come for it: it joins with what the registry said.
    graph_.nodes[id] = std::move(nodesAwaitingInfo_[id]);
    nodesAwaitingInfo_.erase(id);
  }
  if (proxy) {
    BoundObject& object = bound_.emplace_back();
    object.owner = this;
    object.id = id;
    object.kind = kind;
    object.proxy = proxy;
    switch (kind) {
      case ObjectKind::Node: {
        static const pw_node_events events = [] {
          pw_node_events e{};
          e.version = PW_VERSION_NODE_EVENTS;
          e.info = [](void* data, const pw_node_info* info) {
            auto* bound = static_cast<BoundObject*>(data);
            bound->owner->onNodeInfo(*bound, info);
          };
          return e;
        }();
        pw_node_add_listener(reinterpret_cast<pw_node*>(proxy), &object.listener, &events, &object);
        break;
      }
      case ObjectKind::Device: {
        static const pw_device_events events = [] {
          pw_device_events e{};
          e.version = PW_VERSION_DEVICE_EVENTS;
          e.info = [](void* data, const pw_device_info* info) {
            auto* bound = static_cast<BoundObject*>(data);
            bound->owner->onDeviceInfo(*bound, info);
          };
          e.param = [](void* data, int seq, std::uint32_t paramID, std::uint32_t, std::uint32_t,
                       const spa_pod* param) {
            auto* bound = static_cast<BoundObject*>(data);
            bound->owner->onDeviceParam(*bound, seq, paramID, param);
          };
          return e;
        }();
        pw_device_add_listener(reinterpret_cast<pw_device*>(proxy), &object.listener, &events,
                               &object);
        break;
      }
      case ObjectKind::Client: {
        static const pw_client_events events = [] {
          pw_client_events e{};
          e.version = PW_VERSION_CLIENT_EVENTS;
          e.info = [](void* data, const pw_client_info* info) {
            auto* bound = static_cast<BoundObject*>(data);
            bound->owner->onClientInfo(*bound, info);
          };
          return e;
        }();
        pw_client_add_listener(reinterpret_cast<pw_client*>(proxy), &object.listener, &events,
                               &object);
        break;
      }
      case ObjectKind::Link: {
        static const pw_link_events events = [] {
          pw_link_events e{};
          e.version = PW_VERSION_LINK_EVENTS;
          e.info = [](void* data, const pw_link_info* info) {
            auto* bound = static_cast<BoundObject*>(data);
            bound->owner->onLinkInfo(*bound, info);
          };
          return e;
        }();
        pw_link_add_listener(reinterpret_cast<pw_link*>(proxy), &object.listener, &events, &object);
        break;
      }
    }
  }
  // Until the first graph is complete, each new object's info must arrive before it is handed
  // over; the round trip after the bind tells when it has.
  // The round trip after the bind tells when the new object's info has arrived. Until then the
  // first graph waits for it, and so does any later change: a change handed over before would miss
  // the new object, such as a recorder that took over from one that just left.
  requestSync();
  if (synchronised_) awaitingNewObjects_ = true;
  publish();
}

void PipeWireGraphConnection::onGlobalRemoved(std::uint32_t id) {
  nodesAwaitingInfo_.erase(id);
  const bool removed = graph_.nodes.erase(id) + graph_.devices.erase(id) + graph_.links.erase(id) +
                           graph_.clients.erase(id) !=
                       0;
  for (auto it = bound_.begin(); it != bound_.end(); ++it) {
    if (it->id != id) continue;
    spa_hook_remove(&it->listener);
    pw_proxy_destroy(it->proxy);
    bound_.erase(it);
    break;
  }
  if (removed) publish();
}

void PipeWireGraphConnection::onNodeInfo(BoundObject& object, const pw_node_info* info) {
  if (!info) return;
  bool joined = false;
  if (auto waiting = nodesAwaitingInfo_.find(object.id); waiting != nodesAwaitingInfo_.end()) {
    graph_.nodes.emplace(object.id, std::move(waiting->second));
    nodesAwaitingInfo_.erase(waiting);
    joined = true;
  }
  auto found = graph_.nodes.find(object.id);
  if (found == graph_.nodes.end()) return;
  PipeWireNode node = found->second;
  node.state = NodeStateOf(info->state);
  if ((info->change_mask & PW_NODE_CHANGE_MASK_PROPS) && info->props) {
    for (auto& [key, value] : PropertiesOf(info->props)) node.properties[key] = value;
  }
  if (!joined && node == found->second) return;
  found->second = std::move(node);
  publish();
}

void PipeWireGraphConnection::onLinkInfo(BoundObject& object, const pw_link_info* info) {
  auto found = graph_.links.find(object.id);
  if (found == graph_.links.end() || !info) return;
  PipeWireLink link = found->second;
  link.outputNodeID = info->output_node_id;
  link.outputPortID = info->output_port_id;
  link.inputNodeID = info->input_node_id;
  link.inputPortID = info->input_port_id;
  link.state = LinkStateOf(info->state);
  if (link == found->second) return;
  found->second = link;
  publish();
}

void PipeWireGraphConnection::onClientInfo(BoundObject& object, const pw_client_info* info) {
  auto found = graph_.clients.find(object.id);
  if (found == graph_.clients.end() || !info) return;
  if (!(info->change_mask & PW_CLIENT_CHANGE_MASK_PROPS) || !info->props) return;
  // The info carries every property, the socket's credentials among them; the registry only some.
  PipeWireProperties properties = found->second.properties;
  for (auto& [key, value] : PropertiesOf(info->props)) properties[key] = value;
  if (properties == found->second.properties) return;
  found->second.properties = std::move(properties);
  publish();
}

void PipeWireGraphConnection::onDeviceInfo(BoundObject& object, const pw_device_info* info) {
  auto found = graph_.devices.find(object.id);
  if (found == graph_.devices.end() || !info) return;
  bool changed = false;
  if ((info->change_mask & PW_DEVICE_CHANGE_MASK_PROPS) && info->props) {
    PipeWireProperties properties = found->second.properties;
    for (auto& [key, value] : PropertiesOf(info->props)) properties[key] = value;
    if (properties != found->second.properties) {
      found->second.properties = std::move(properties);
      changed = true;
    }
  }
  if (info->change_mask & PW_DEVICE_CHANGE_MASK_PARAMS) {
    bool asked = false;
    for (std::uint32_t i = 0; i < info->n_params; ++i) {
      const spa_param_info& param = info->params[i];
      auto slot = std::find(kRouteParams.begin(), kRouteParams.end(), param.id);
      if (slot == kRouteParams.end() || !(param.flags & SPA_PARAM_INFO_READ)) continue;
      const std::size_t index = static_cast<std::size_t>(slot - kRouteParams.begin());
      // The daemon flips a serial bit in the flags whenever the param's value changes.
      if (object.paramFlags[index] == param.flags) continue;
      object.paramFlags[index] = param.flags;
      // A new number for each enumeration: answers to an earlier one are told apart and dropped.
      object.enumSeq[index] = ++lastEnumSeq_;
      object.collecting[index] = true;
      object.collected[index].clear();
      pw_device_enum_params(reinterpret_cast<pw_device*>(object.proxy), object.enumSeq[index],
                            param.id, 0, UINT32_MAX, nullptr);
      asked = true;
    }
    // The params come before the answer to this round trip; they are taken over then.
    if (asked) requestSync();
  }
  if (changed) publish();
}

void PipeWireGraphConnection::onDeviceParam(BoundObject& object, int seq, std::uint32_t id,
                                            const spa_pod* param) {
  auto slot = std::find(kRouteParams.begin(), kRouteParams.end(), id);
  if (slot == kRouteParams.end()) return;
  const std::size_t index = static_cast<std::size_t>(slot - kRouteParams.begin());
  if (!object.collecting[index] || seq != object.enumSeq[index]) return;
  if (auto route = PipeWireRouteFromParam(param)) object.collected[index].push_back(*route);
}

bool PipeWireGraphConnection::DaemonAnswers(const std::optional<std::string>& remote,
                                            std::chrono::milliseconds timeout) {
  pw_init(nullptr, nullptr);
  pw_main_loop* loop = pw_main_loop_new(nullptr);
  if (!loop) return false;
  pw_context* context = pw_context_new(pw_main_loop_get_loop(loop), nullptr, 0);
  pw_core* core = context ? pw_context_connect(context, CoreProperties(remote), 0) : nullptr;
  struct Probe {
    pw_main_loop* loop = nullptr;
    int seq = 0;
    bool answered = false;
  } probe{loop};
  spa_hook listener{};
  spa_source* timer = nullptr;
  if (core) {
    static const pw_core_events events = [] {
      pw_core_events e{};
      e.version = PW_VERSION_CORE_EVENTS;
      e.done = [](void* data, std::uint32_t id, int seq) {
        auto* waiting = static_cast<Probe*>(data);
        if (id != PW_ID_CORE || seq != waiting->seq) return;
        waiting->answered = true;
        pw_main_loop_quit(waiting->loop);
      };
      e.error = [](void* data, std::uint32_t id, int, int, const char*) {
        if (id == PW_ID_CORE) pw_main_loop_quit(static_cast<Probe*>(data)->loop);
      };
      return e;
    }();
    pw_core_add_listener(core, &listener, &events, &probe);
    timer = pw_loop_add_timer(
        pw_main_loop_get_loop(loop),
        [](void* data, std::uint64_t) { pw_main_loop_quit(static_cast<pw_main_loop*>(data)); },
        loop);
    timespec when = TimespecOf(timeout);
    pw_loop_update_timer(pw_main_loop_get_loop(loop), timer, &when, nullptr, false);
    probe.seq = pw_core_sync(core, PW_ID_CORE, 0);
    pw_main_loop_run(loop);
    spa_hook_remove(&listener);
    pw_core_disconnect(core);
  }
  if (timer) pw_loop_destroy_source(pw_main_loop_get_loop(loop), timer);
  if (context) pw_context_destroy(context);
  pw_main_loop_destroy(loop);
  return probe.answered;
}

}  // namespace harkwell
