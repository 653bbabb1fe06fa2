#include "HarkwellFoundation/Backend/internal/BackendObserverSupport.h"

namespace harkwell {

std::function<void()> CallbackWhileObserverAlive(std::weak_ptr<MediaDeviceObserver> observer,
                                                 std::function<void(MediaDeviceObserver&)> note) {
  return [observer = std::move(observer), note = std::move(note)] {
    if (auto alive = observer.lock()) note(*alive);
  };
}

std::function<void()> ConnectedDevicesChangedCallback(std::weak_ptr<MediaDeviceObserver> observer) {
  return CallbackWhileObserverAlive(
      std::move(observer), [](MediaDeviceObserver& self) { self.noteConnectedDevicesDidChange(); });
}

std::function<void()> IsRunningChangedCallback(std::weak_ptr<MediaDeviceObserver> observer,
                                               std::uint32_t deviceID) {
  return CallbackWhileObserverAlive(std::move(observer), [deviceID](MediaDeviceObserver& self) {
    self.noteIsRunningChangedForDeviceID(deviceID);
  });
}

std::optional<MediaDeviceChannelCounts> ReadChannelCounts(std::uint32_t deviceID,
                                                          StreamCountRead inputCount,
                                                          StreamCountRead outputCount) {
  const auto inputs = inputCount(deviceID);
  if (!inputs) return std::nullopt;
  const auto outputs = outputCount(deviceID);
  if (!outputs) return std::nullopt;
  return MediaDeviceChannelCounts{.inputCount = *inputs, .outputCount = *outputs};
}

}  // namespace harkwell
