// The property reads the audio and video back ends share, done the same way for both: one service
// call (or two for a list), the platform's data sizes, and one failure line through the back end's
// log function ("!obj" stays silent there). Each public AudioDevice... / VideoDevice... function
// makes a reader for the service installed at the time of the call and keeps it alive for that
// call only. A reader keeps no state besides the service and the log function; any thread may use
// one.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "HarkwellFoundation/Backend/internal/HardwareBackend.h"
#include "HarkwellFoundation/Backend/internal/HardwareFailureLog.h"
#include "HarkwellFoundation/Platform/HardwareService.h"

namespace harkwell {

class HardwarePropertyReader {
 public:
  // A reader for the back end's service installed now.
  explicit HardwarePropertyReader(const HardwareBackend& backend)
      : HardwarePropertyReader(backend.currentService(), backend.log) {}
  HardwarePropertyReader(std::shared_ptr<HardwareService> service, HardwareFailureLog log)
      : service_(std::move(service)), log_(log) {}

  HardwareService& service() const { return *service_; }
  void logFailure(std::optional<OSStatus> status, std::string_view message) const {
    log_(status, message);
  }

  // A 32-bit value (data size 4, no qualifier). Failure logs "Unable to get <what> of device with
  // ID <id>".
  std::optional<std::uint32_t> readUInt32(ObjectID object, const PropertyAddress& address,
                                          std::string_view what) const;

  // A string reference (data size 8, no qualifier), released once its text is copied. Failure logs
  // "Unable to get <propertyName> of device with ID <id>"; a null reference logs
  // "<propertyName> for device with ID <id> is nil" without a status. Both give empty.
  std::optional<std::string> readString(ObjectID object, const PropertyAddress& address,
                                        std::string_view propertyName) const;

  // The number of 32-bit elements of a list property, from its data size alone (the list itself
  // is not read). Failure logs "Unable to get <what> of device with ID <id>".
  std::optional<std::uint64_t> countElements(ObjectID object, const PropertyAddress& address,
                                             std::string_view what) const;

  // A list of object IDs: the data size first ("Unable to get device count" on failure), then the
  // data with exactly that size ("Unable to get device IDs"). The result has size / 4 entries
  // whatever the read reports back; empty on either failure.
  std::vector<std::uint32_t> readObjectIDList(ObjectID object,
                                              const PropertyAddress& address) const;

 private:
  std::shared_ptr<HardwareService> service_;
  HardwareFailureLog log_;
};

}  // namespace harkwell
