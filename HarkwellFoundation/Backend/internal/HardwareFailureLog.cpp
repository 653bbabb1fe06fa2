#include "HarkwellFoundation/Backend/internal/HardwareFailureLog.h"

#include "HarkwellFoundation/Platform/SystemLog.h"

namespace harkwell {

void LogHardwareFailure(const HardwareFailureLogFormat& format, std::optional<OSStatus> status,
                        std::string_view message) {
  if (status && *status == format.badObjectStatus) return;
  std::string line(format.errorPrefix);
  line += status ? std::to_string(*status) : std::string("(unknown error)");
  line += ": ";
  line += message;
  SystemLog(line);
}

std::string DeviceMessage(std::string_view head, ObjectID deviceID) {
  std::string message(head);
  message += " of device with ID ";
  message += std::to_string(deviceID);
  return message;
}

}  // namespace harkwell
