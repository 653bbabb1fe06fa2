// The consumers decoder on arbitrary bytes, as a hardware service of one's own might answer. It
// must never crash or allocate beyond what the bytes can hold; whatever it accepts is canonical:
// encoding the decoded list gives back exactly the bytes it was given.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"

namespace {

void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "broken promise: %s\n", what);
  std::abort();
}

int Depth(const std::vector<harkwell::MediaDeviceConsumer>& consumers) {
  int deepest = 0;
  for (const auto& consumer : consumers) {
    const int below = consumer.feeds.empty() ? 0 : 1 + Depth(consumer.feeds);
    if (below > deepest) deepest = below;
  }
  return deepest;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto consumers = harkwell::DecodeDeviceConsumers(data, size);
  if (!consumers) return 0;
  Require(Depth(*consumers) <= harkwell::kMaxDeviceConsumerNesting, "nesting beyond the limit");
  const std::vector<std::uint8_t> encoded = harkwell::EncodeDeviceConsumers(*consumers);
  Require(encoded == std::vector<std::uint8_t>(data, data + size),
          "an accepted encoding is not what encoding its list gives");
  return 0;
}
