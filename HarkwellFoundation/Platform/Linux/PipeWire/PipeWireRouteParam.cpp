#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireRouteParam.h"

#include <spa/param/param.h>
#include <spa/param/route.h>
#include <spa/pod/iter.h>
#include <spa/utils/defs.h>

#include <array>

// SPA's pod iteration macros are written in C, with C casts.
#pragma GCC diagnostic ignored "-Wold-style-cast"

namespace harkwell {

std::optional<PipeWireRoute> PipeWireRouteFromParam(const spa_pod* param) {
  if (!param || !spa_pod_is_object_type(param, SPA_TYPE_OBJECT_ParamRoute)) return std::nullopt;
  const auto* object = reinterpret_cast<const spa_pod_object*>(param);
  PipeWireRoute route;
  bool named = false;
  const spa_pod_prop* prop = nullptr;
  SPA_POD_OBJECT_FOREACH(object, prop) {
    const spa_pod* value = &prop->value;
    switch (prop->key) {
      case SPA_PARAM_ROUTE_index:
        spa_pod_get_int(value, &route.index);
        break;
      case SPA_PARAM_ROUTE_direction: {
        std::uint32_t direction = 0;
        if (spa_pod_get_id(value, &direction) == 0) {
          route.direction = direction == SPA_DIRECTION_OUTPUT ? PipeWireDirection::Output
                                                              : PipeWireDirection::Input;
        }
        break;
      }
      case SPA_PARAM_ROUTE_device: {
        std::int32_t device = 0;
        if (spa_pod_get_int(value, &device) == 0) route.devices = {device};
        break;
      }
      case SPA_PARAM_ROUTE_devices: {
        // A card has a handful of profile devices; more than this many would be a broken pod.
        std::array<std::int32_t, 64> devices{};
        const std::uint32_t count =
            spa_pod_copy_array(value, SPA_TYPE_Int, devices.data(), devices.size());
        route.devices.assign(devices.begin(), devices.begin() + count);
        break;
      }
      case SPA_PARAM_ROUTE_name: {
        const char* name = nullptr;
        if (spa_pod_get_string(value, &name) == 0 && name) {
          route.name = name;
          named = true;
        }
        break;
      }
      case SPA_PARAM_ROUTE_description: {
        const char* description = nullptr;
        if (spa_pod_get_string(value, &description) == 0 && description) {
          route.description = description;
        }
        break;
      }
      default:
        break;
    }
  }
  if (!named) return std::nullopt;
  if (route.description.empty()) route.description = route.name;
  return route;
}

}  // namespace harkwell
