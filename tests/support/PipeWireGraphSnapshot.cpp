#include "tests/support/PipeWireGraphSnapshot.h"

#include <pipewire/pipewire.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <list>
#include <memory>

// libpipewire's method calls (pw_core_sync, pw_registry_bind, ...) are C macros with C casts.
#pragma GCC diagnostic ignored "-Wold-style-cast"

namespace harkwell::testing {
namespace {

std::string ShortTypeName(const char* type) {
  // "PipeWire:Interface:Node" -> "Node".
  const std::string text = type ? type : "";
  const std::size_t colon = text.rfind(':');
  return colon == std::string::npos ? text : text.substr(colon + 1);
}

std::map<std::string, std::string> PropertiesOf(const spa_dict* dict) {
  std::map<std::string, std::string> properties;
  if (!dict) return properties;
  for (std::uint32_t i = 0; i < dict->n_items; ++i) {
    const spa_dict_item& item = dict->items[i];
    if (item.key && item.value) properties[item.key] = item.value;
  }
  return properties;
}

// One connection that follows the graph and stops its loop when the condition holds for the graph
// as the daemon has sent it so far. Every change asks the daemon for a round trip, and the
// condition is checked when it comes back: by then every object announced before has been sent,
// and so has the info of every node bound before.
class GraphFollower {
 public:
  using Condition = std::function<bool(const PipeWireGraphSnapshot&)>;

  GraphFollower() {
    pw_init(nullptr, nullptr);
    loop_ = pw_main_loop_new(nullptr);
    if (loop_) context_ = pw_context_new(pw_main_loop_get_loop(loop_), nullptr, 0);
  }

  ~GraphFollower() {
    for (NodeWatch& watch : nodes_) {
      spa_hook_remove(&watch.listener);
      pw_proxy_destroy(reinterpret_cast<pw_proxy*>(watch.proxy));
    }
    if (registry_) {
      spa_hook_remove(&registryListener_);
      pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
    }
    if (core_) {
      spa_hook_remove(&coreListener_);
      pw_core_disconnect(core_);
    }
    if (timer_) pw_loop_destroy_source(pw_main_loop_get_loop(loop_), timer_);
    if (context_) pw_context_destroy(context_);
    if (loop_) pw_main_loop_destroy(loop_);
  }

  GraphFollower(const GraphFollower&) = delete;
  GraphFollower& operator=(const GraphFollower&) = delete;

  // Runs until `condition` holds (true) or the deadline passes or the connection fails (false,
  // with the reason in error_).
  bool run(const std::string& remote, std::chrono::milliseconds deadline, Condition condition) {
    if (!context_) {
      error_ = "cannot make a PipeWire loop";
      return false;
    }
    condition_ = std::move(condition);
    pw_properties* properties = pw_properties_new(PW_KEY_REMOTE_NAME, remote.c_str(), nullptr);
    core_ = pw_context_connect(context_, properties, 0);
    if (!core_) {
      error_ = "cannot connect to PipeWire at " + remote + ": " + std::strerror(errno);
      return false;
    }
    static const pw_core_events coreEvents = [] {
      pw_core_events events{};
      events.version = PW_VERSION_CORE_EVENTS;
      events.done = [](void* data, std::uint32_t id, int seq) {
        auto* self = static_cast<GraphFollower*>(data);
        if (id == PW_ID_CORE && seq == self->pendingSync_) self->synced();
      };
      events.error = [](void* data, std::uint32_t id, int, int res, const char* message) {
        auto* self = static_cast<GraphFollower*>(data);
        // Only a broken connection is fatal; errors about an object that vanished while it was
        // asked about are not the connection's, even when the core reports them.
        if (id != PW_ID_CORE || res != -EPIPE) return;
        self->error_ = std::string("PipeWire connection failed: ") + std::strerror(-res) + " (" +
                       (message ? message : "") + ")";
        pw_main_loop_quit(self->loop_);
      };
      return events;
    }();
    pw_core_add_listener(core_, &coreListener_, &coreEvents, this);

    static const pw_registry_events registryEvents = [] {
      pw_registry_events events{};
      events.version = PW_VERSION_REGISTRY_EVENTS;
      events.global = [](void* data, std::uint32_t id, std::uint32_t, const char* type,
                         std::uint32_t, const spa_dict* props) {
        static_cast<GraphFollower*>(data)->added(id, type, props);
      };
      events.global_remove = [](void* data, std::uint32_t id) {
        static_cast<GraphFollower*>(data)->removed(id);
      };
      return events;
    }();
    registry_ = pw_core_get_registry(core_, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(registry_, &registryListener_, &registryEvents, this);

    timer_ = pw_loop_add_timer(
        pw_main_loop_get_loop(loop_),
        [](void* data, std::uint64_t) {
          auto* self = static_cast<GraphFollower*>(data);
          if (self->error_.empty()) self->error_ = "timed out";
          pw_main_loop_quit(self->loop_);
        },
        this);
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(deadline);
    timespec value{};
    value.tv_sec = seconds.count();
    value.tv_nsec = static_cast<long>((deadline - seconds).count()) * 1000000L;
    if (value.tv_sec == 0 && value.tv_nsec == 0) value.tv_nsec = 1;
    pw_loop_update_timer(pw_main_loop_get_loop(loop_), timer_, &value, nullptr, false);

    requestSync();
    pw_main_loop_run(loop_);
    return satisfied_;
  }

  const PipeWireGraphSnapshot& graph() const { return graph_; }
  const std::string& error() const { return error_; }

 private:
  struct NodeWatch {
    std::uint32_t id = 0;
    pw_node* proxy = nullptr;
    spa_hook listener{};
    GraphFollower* owner = nullptr;
  };

  void requestSync() { pendingSync_ = pw_core_sync(core_, PW_ID_CORE, pendingSync_); }

  void synced() {
    if (condition_(graph_)) {
      satisfied_ = true;
      pw_main_loop_quit(loop_);
    }
  }

  void added(std::uint32_t id, const char* type, const spa_dict* props) {
    PipeWireObject object;
    object.id = id;
    object.type = ShortTypeName(type);
    object.properties = PropertiesOf(props);
    graph_.objects.push_back(std::move(object));
    if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) watchNode(id, type);
    requestSync();
  }

  void removed(std::uint32_t id) {
    std::erase_if(graph_.objects, [&](const PipeWireObject& object) { return object.id == id; });
    for (auto it = nodes_.begin(); it != nodes_.end(); ++it) {
      if (it->id != id) continue;
      spa_hook_remove(&it->listener);
      pw_proxy_destroy(reinterpret_cast<pw_proxy*>(it->proxy));
      nodes_.erase(it);
      break;
    }
    requestSync();
  }

  void watchNode(std::uint32_t id, const char* type) {
    auto* proxy = static_cast<pw_node*>(pw_registry_bind(registry_, id, type, PW_VERSION_NODE, 0));
    if (!proxy) return;
    static const pw_node_events nodeEvents = [] {
      pw_node_events events{};
      events.version = PW_VERSION_NODE_EVENTS;
      events.info = [](void* data, const pw_node_info* info) {
        auto* watch = static_cast<NodeWatch*>(data);
        for (PipeWireObject& object : watch->owner->graph_.objects) {
          if (object.id != watch->id) continue;
          object.state = pw_node_state_as_string(info->state);
          // The node's own properties are more than the registry announces (node.link-group).
          if (info->props) {
            for (auto& [key, value] : PropertiesOf(info->props)) object.properties[key] = value;
          }
        }
        watch->owner->requestSync();
      };
      return events;
    }();
    NodeWatch& watch = nodes_.emplace_back();
    watch.id = id;
    watch.proxy = proxy;
    watch.owner = this;
    pw_node_add_listener(proxy, &watch.listener, &nodeEvents, &watch);
  }

  pw_main_loop* loop_ = nullptr;
  pw_context* context_ = nullptr;
  pw_core* core_ = nullptr;
  pw_registry* registry_ = nullptr;
  spa_source* timer_ = nullptr;
  spa_hook coreListener_{};
  spa_hook registryListener_{};
  std::list<NodeWatch> nodes_;  // a list: each watch's address is handed to libpipewire
  int pendingSync_ = 0;
  Condition condition_;
  bool satisfied_ = false;
  std::string error_;
  PipeWireGraphSnapshot graph_;
};

}  // namespace

std::string PipeWireObject::property(const std::string& key) const {
  auto found = properties.find(key);
  return found == properties.end() ? std::string() : found->second;
}

std::optional<PipeWireGraphSnapshot> PipeWireGraphSnapshot::take(const std::string& remote,
                                                                 std::chrono::milliseconds deadline,
                                                                 std::string* error) {
  GraphFollower follower;
  if (follower.run(remote, deadline, [](const PipeWireGraphSnapshot&) { return true; })) {
    return follower.graph();
  }
  if (error) *error = follower.error();
  return std::nullopt;
}

const PipeWireObject* PipeWireGraphSnapshot::nodeNamed(const std::string& name) const {
  return find("Node",
              [&](const PipeWireObject& node) { return node.property("node.name") == name; });
}

const PipeWireObject* PipeWireGraphSnapshot::find(
    const std::string& type, const std::function<bool(const PipeWireObject&)>& matches) const {
  for (const PipeWireObject& object : objects) {
    if (object.type == type && matches(object)) return &object;
  }
  return nullptr;
}

std::size_t PipeWireGraphSnapshot::linksFromNode(std::uint32_t nodeID) const {
  std::size_t count = 0;
  for (const PipeWireObject& object : objects) {
    if (object.type == "Link" && object.property("link.output.node") == std::to_string(nodeID)) {
      ++count;
    }
  }
  return count;
}

std::string WaitForPipeWireGraph(const std::string& remote,
                                 const std::function<bool(const PipeWireGraphSnapshot&)>& condition,
                                 std::chrono::milliseconds deadline) {
  GraphFollower follower;
  if (follower.run(remote, deadline, condition)) return {};
  return "the PipeWire graph did not reach the expected state: " + follower.error();
}

}  // namespace harkwell::testing
