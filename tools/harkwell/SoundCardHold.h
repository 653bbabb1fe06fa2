// What `harkwell hog` knows on Linux about a sound card's reservation on the session bus: the card
// behind an audio device, what its holder says about itself, and the requests other programs make
// for a card harkwell holds. Cameras have no reservation there. Built without exclusive access to
// sound cards, no device has a card. Main thread only, except where said.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "tools/harkwell/CommandLine.h"
#include "tools/harkwell/LineWriter.h"

namespace harkwell {
class DeviceReservation;
}

namespace harkwell::cli {

// The card behind an audio device of the installed service, and the reservation that service
// answers from. Absent for cameras, devices without a card and services without cards.
struct SoundCardHold {
  std::shared_ptr<DeviceReservation> reservation;
  std::uint32_t card = 0;
};
std::optional<SoundCardHold> SoundCardHoldFor(const MediaDevice& device);

// What the holder of a card says about itself, when `mode` is another process and that process
// still holds the card.
struct CardHolder {
  std::string applicationName;
  std::string applicationDeviceName;
};
std::optional<CardHolder> CardHolderFor(const std::optional<SoundCardHold>& hold,
                                        const MediaDeviceHogMode& mode);

// "pw-reserve (pid 1234)", or "pid 1234" for a holder that gives no name.
std::string HolderText(const MediaDeviceHogMode& mode, const std::optional<CardHolder>& holder);

// Whether `device` is a camera from Linux's own video service, which has no exclusive access.
bool IsLinuxCamera(const MediaDevice& device, const ServiceOptions& services);

// Prints a line on `out` for each request another program makes for the card, from construction
// (before the card is taken: a request may come at once) until destruction. The lines are written
// on a queue of the printer's own.
class ReleaseRequestPrinter {
 public:
  ReleaseRequestPrinter(const MediaDevice& device, SoundCardHold hold, bool json, LineWriter& out);
  // Waits until no request is being printed any more.
  ~ReleaseRequestPrinter();
  ReleaseRequestPrinter(const ReleaseRequestPrinter&) = delete;
  ReleaseRequestPrinter& operator=(const ReleaseRequestPrinter&) = delete;

 private:
  SoundCardHold hold_;
  std::shared_ptr<DispatchQueue> queue_;
};

}  // namespace harkwell::cli
