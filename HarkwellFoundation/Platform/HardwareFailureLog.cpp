#include "HarkwellFoundation/Platform/HardwareFailureLog.h"

#include "HarkwellFoundation/Platform/SystemLog.h"

namespace harkwell {

std::optional<std::string> ComposeHardwareFailureLine(const HardwareFailureLogFormat& format,
                                                      std::optional<OSStatus> status,
                                                      std::string_view message) {
  if (status && *status == format.badObjectStatus) return std::nullopt;
  std::string line(format.errorPrefix);
  line += status ? std::to_string(*status) : std::string("(unknown error)");
  line += ": ";
  line += message;
  return line;
}

void LogHardwareFailure(const HardwareFailureLogFormat& format, std::optional<OSStatus> status,
                        std::string_view message) {
  if (auto line = ComposeHardwareFailureLine(format, status, message)) SystemLog(*line);
}

std::string DeviceMessage(std::string_view head, ObjectID deviceID) {
  std::string message(head);
  message += " of device with ID ";
  message += std::to_string(deviceID);
  return message;
}

}  // namespace harkwell
