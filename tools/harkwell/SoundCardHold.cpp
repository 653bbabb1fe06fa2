#include "tools/harkwell/SoundCardHold.h"

#include "HarkwellFoundation/Platform/HardwareService.h"
#include "tools/harkwell/DeviceJson.h"
#include "tools/harkwell/ServiceSelection.h"
#include "tools/harkwell/TerminalText.h"

#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
#include "HarkwellFoundation/Platform/Linux/Reservation/DeviceReservation.h"
#include "HarkwellFoundation/Platform/Linux/Reservation/SoundCardReservationSource.h"
#endif

namespace harkwell::cli {

std::optional<SoundCardHold> SoundCardHoldFor([[maybe_unused]] const MediaDevice& device) {
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  if (device.mediaType != MediaType::Audio) return std::nullopt;
  const auto service = CurrentAudioHardwareService();
  const auto* source = dynamic_cast<const SoundCardReservationSource*>(service.get());
  if (!source) return std::nullopt;
  auto reservation = source->deviceReservation();
  const auto card = source->soundCardOfDevice(device.deviceID);
  if (!reservation || !card) return std::nullopt;
  return SoundCardHold{std::move(reservation), *card};
#else
  return std::nullopt;
#endif
}

std::optional<CardHolder> CardHolderFor([[maybe_unused]] const std::optional<SoundCardHold>& hold,
                                        [[maybe_unused]] const MediaDeviceHogMode& mode) {
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  if (!hold || mode.kind() != MediaDeviceHogMode::Kind::OtherProcess) return std::nullopt;
  const auto owner = hold->reservation->owner(hold->card);
  if (!owner || owner->pid != *mode.otherProcessPID()) return std::nullopt;
  return CardHolder{owner->applicationName, owner->applicationDeviceName};
#else
  return std::nullopt;
#endif
}

std::string HolderText(const MediaDeviceHogMode& mode, const std::optional<CardHolder>& holder) {
  const std::string pid = "pid " + std::to_string(mode.otherProcessPID().value_or(-1));
  if (!holder || holder->applicationName.empty()) return pid;
  return EscapeForTerminal(holder->applicationName) + " (" + pid + ")";
}

bool IsLinuxCamera([[maybe_unused]] const MediaDevice& device,
                   [[maybe_unused]] const ServiceOptions& services) {
#if defined(__linux__)
  return device.mediaType == MediaType::Video &&
         EffectiveVideoChoice(services) == VideoChoice::V4L2;
#else
  return false;
#endif
}

ReleaseRequestPrinter::ReleaseRequestPrinter([[maybe_unused]] const MediaDevice& device,
                                             SoundCardHold hold, [[maybe_unused]] bool json,
                                             [[maybe_unused]] LineWriter& out)
    : hold_(std::move(hold)), queue_(DispatchQueue::createSerial("com.harkwell.cli.hog")) {
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  const std::string name = EscapeForTerminal(device.name);
  // A line that cannot be written is dropped: the hold ends when stdout's reader goes away.
  hold_.reservation->setReleaseRequestHandler(
      queue_, [&out, json, name](const DeviceReservation::ReleaseRequest& request) {
        if (json) {
          Json object = Json::object();
          object["event"] = "releaseRequested";
          object["card"] = request.card;
          object["pid"] = request.pid >= 0 ? Json(request.pid) : Json(nullptr);
          object["priority"] = request.priority;
          out.writeLine(DumpLine(object));
          return;
        }
        const std::string who =
            request.pid >= 0 ? "pid " + std::to_string(request.pid) : "another program";
        out.writeLine(who + " asked for " + name + " (priority " +
                      std::to_string(request.priority) + "); harkwell keeps it until it ends");
      });
#endif
}

ReleaseRequestPrinter::~ReleaseRequestPrinter() {
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  hold_.reservation->setReleaseRequestHandler(nullptr, nullptr);
#endif
  // The queue only prints; it never waits for the main thread.
  queue_->sync([] {});
}

}  // namespace harkwell::cli
