#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioDeviceMapping.h"

#include <charconv>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"

namespace harkwell {
namespace {

// The value of `key` on the device, else on its card.
std::optional<std::string> PropertyOf(const PulseEndpoint& endpoint, const PulseCard* card,
                                      const std::string& key) {
  if (auto found = endpoint.properties.find(key); found != endpoint.properties.end()) {
    return found->second;
  }
  if (card) {
    if (auto found = card->properties.find(key); found != card->properties.end()) {
      return found->second;
    }
  }
  return std::nullopt;
}

}  // namespace

std::uint32_t PulseTransportTypeFor(const PulseEndpoint& endpoint, const PulseCard* card) {
  const auto bus = PropertyOf(endpoint, card, "device.bus");
  const auto api = PropertyOf(endpoint, card, "device.api");
  const auto formFactor = PropertyOf(endpoint, card, "device.form_factor");
  const auto deviceClass = PropertyOf(endpoint, card, "device.class");

  // The bus says how the device is attached; a built-in one says so through its form factor
  // even though it sits on a PCI (or other) bus inside the computer.
  if (bus == "bluetooth" || api == "bluez") return kAudioDeviceTransportTypeBluetooth;
  if (bus == "usb") return kAudioDeviceTransportTypeUSB;
  if (bus == "firewire" || bus == "ieee1394") return kAudioDeviceTransportTypeFireWire;
  if (formFactor == "internal") return kAudioDeviceTransportTypeBuiltIn;
  if (bus == "pci") return kAudioDeviceTransportTypePCI;
  // Null devices, loopbacks, filters and network tunnels have no hardware behind them.
  if (deviceClass == "abstract" || deviceClass == "filter") return kAudioDeviceTransportTypeVirtual;
  if (!bus && !endpoint.cardIndex) return kAudioDeviceTransportTypeVirtual;
  return kAudioDeviceTransportTypeUnknown;
}

std::optional<std::string> PulseModelUIDFor(const PulseEndpoint& endpoint, const PulseCard* card) {
  const auto vendor = PropertyOf(endpoint, card, "device.vendor.id");
  const auto product = PropertyOf(endpoint, card, "device.product.id");
  if (!vendor || !product || vendor->empty() || product->empty()) return std::nullopt;
  return *vendor + ":" + *product;
}

std::optional<std::uint32_t> PulseSoundCardFor(const PulseEndpoint& endpoint,
                                               const PulseCard* card) {
  // PulseAudio's ALSA modules say "alsa.card"; PipeWire's server says "api.alsa.card".
  for (const char* key : {"alsa.card", "api.alsa.card"}) {
    const auto text = PropertyOf(endpoint, card, key);
    if (!text || text->empty()) continue;
    std::uint32_t number = 0;
    const char* end = text->data() + text->size();
    const auto [stop, status] = std::from_chars(text->data(), end, number);
    if (status == std::errc() && stop == end) return number;
  }
  return std::nullopt;
}

bool PulseEndpointIsRunning(const PulseEndpoint& endpoint, const PulseServerState& state) {
  if (endpoint.state != PulseEndpointState::Running) return false;
  if (endpoint.kind == PulseEndpointKind::Sink) return true;
  for (const auto& [index, stream] : state.recordingStreams) {
    if (stream.sourceIndex == endpoint.index && !stream.corked && !stream.levelMeter) return true;
  }
  return false;
}

PulseMappedDevice MapPulseEndpoint(const PulseEndpoint& endpoint, const PulseCard* card,
                                   const PulseServerState& state) {
  PulseMappedDevice device;
  device.kind = endpoint.kind;
  device.uid = endpoint.name;
  device.name = endpoint.description;
  device.modelUID = PulseModelUIDFor(endpoint, card);
  device.transportType = PulseTransportTypeFor(endpoint, card);
  const bool isSource = endpoint.kind == PulseEndpointKind::Source;
  device.inputStreamCount = isSource ? 1 : 0;
  device.outputStreamCount = isSource ? 0 : 1;
  device.isRunning = PulseEndpointIsRunning(endpoint, state);
  device.soundCard = PulseSoundCardFor(endpoint, card);
  if (isSource && !endpoint.ports.empty()) {
    device.inputSources = endpoint.ports;
    device.selectedInputSource = endpoint.activePortName;
  }
  return device;
}

std::vector<PulseMappedDevice> MapPulseServerState(const PulseServerState& state) {
  auto cardOf = [&](const PulseEndpoint& endpoint) -> const PulseCard* {
    if (!endpoint.cardIndex) return nullptr;
    auto found = state.cards.find(*endpoint.cardIndex);
    return found == state.cards.end() ? nullptr : &found->second;
  };
  std::vector<PulseMappedDevice> devices;
  devices.reserve(state.sources.size() + state.sinks.size());
  for (const auto& [index, source] : state.sources) {
    if (!source.isMonitor) devices.push_back(MapPulseEndpoint(source, cardOf(source), state));
  }
  for (const auto& [index, sink] : state.sinks) {
    devices.push_back(MapPulseEndpoint(sink, cardOf(sink), state));
  }
  return devices;
}

}  // namespace harkwell
