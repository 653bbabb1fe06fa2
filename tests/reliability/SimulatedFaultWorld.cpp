#include "tests/reliability/SimulatedFaultWorld.h"

#include <algorithm>
#include <chrono>

#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "tests/reliability/DeviceIncarnation.h"
#include "tests/reliability/QueueDrain.h"

namespace harkwell::testing {
namespace {

// Devices take their IDs from a small range, so IDs are reused all the time.
constexpr ObjectID kFirstDeviceID = 2;
constexpr std::uint32_t kDeviceIDCount = 12;
// Rolls of 0 to 99 choose a step; those from here on switch observation off and on.
constexpr std::uint32_t kRestartRoll = 97;
// Past this many rules on one service, the rules are cleared before another is added.
constexpr int kMostFailureRules = 16;

constexpr PropertyAddress kDeviceListAddress{kAudioHardwarePropertyDevices,
                                             kAudioObjectPropertyScopeGlobal, 0};

constexpr PropertyAddress Global(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeGlobal, 0};
}

// The statuses calls are made to fail with: the platform's own and a few that mean nothing.
constexpr OSStatus kStatuses[] = {
    kAudioHardwareBadObjectError,
    kAudioHardwareUnknownPropertyError,
    kAudioHardwareBadPropertySizeError,
    kCMIOHardwareIllegalOperationError,
    kAudioHardwareUnspecifiedError,
    -50,
    1,
    -1,
};

// The selectors the library reads, written or listens to.
constexpr std::uint32_t kSelectors[] = {
    kAudioHardwarePropertyDevices,
    kAudioObjectPropertyName,
    kAudioDevicePropertyDeviceUID,
    kAudioDevicePropertyModelUID,
    kAudioDevicePropertyStreams,
    kAudioDevicePropertyDeviceIsRunningSomewhere,
    kAudioDevicePropertyTransportType,
    kAudioDevicePropertyDataSource,
    kAudioDevicePropertyDataSourceNameForIDCFString,
    kAudioDevicePropertyHogMode,
    kAudioDevicePropertyConsumers,
};

constexpr std::uint32_t kAudioTransports[] = {
    kAudioDeviceTransportTypeUSB,         kAudioDeviceTransportTypeBuiltIn,
    kAudioDeviceTransportTypeBluetooth,   kAudioDeviceTransportTypeBluetoothLE,
    kAudioDeviceTransportTypeUnknown,     kAudioDeviceTransportTypeAutoAggregate,
    kAudioDeviceTransportTypeThunderbolt, 0x12345678,
};

constexpr std::uint32_t kVideoTransports[] = {
    kVideoTransportTypeUSB,           kVideoTransportTypeBuiltIn,
    kVideoTransportTypeBluetooth,     kVideoTransportTypeWireless,
    kVideoTransportTypeOther,         kVideoTransportTypeNetwork,
    kAudioDeviceTransportTypeUnknown, 0x12345678,
};

template <class T, std::size_t N>
const T& Pick(ChoiceSource& choices, const T (&options)[N]) {
  return options[choices.below(N)];
}

std::string_view Label(MediaType mediaType) {
  return mediaType == MediaType::Audio ? "audio" : "video";
}

// Up to three consumers of any kind; a filter or media server may feed one more.
std::vector<MediaDeviceConsumer> SomeConsumers(ChoiceSource& choices) {
  std::vector<MediaDeviceConsumer> consumers(choices.below(4));
  for (auto& consumer : consumers) {
    consumer.processID = static_cast<std::int32_t>(1 + choices.below(5));
    consumer.isProcessIDVerified = choices.chance(1, 2);
    if (choices.chance(1, 2)) consumer.processName = "p" + std::to_string(consumer.processID);
    consumer.kind = static_cast<MediaDeviceConsumerKind>(choices.below(5));
    if ((consumer.kind == MediaDeviceConsumerKind::Filter ||
         consumer.kind == MediaDeviceConsumerKind::MediaServer) &&
        choices.chance(1, 2)) {
      consumer.feeds.push_back({.processID = 100});
    }
  }
  return consumers;
}

std::string Describe(MediaType mediaType, ObjectID deviceID) {
  return std::string(Label(mediaType)) + " " + std::to_string(deviceID);
}

// Whether `line` reports the bad-object status, which both back ends leave out of the log.
bool ReportsBadObject(std::string_view line) {
  const std::string status = std::to_string(kAudioHardwareBadObjectError) + ":";
  for (std::string_view prefix : {"Audio Error ", "Video Error "}) {
    if (line.substr(0, prefix.size()) == prefix &&
        line.substr(prefix.size(), status.size()) == status) {
      return true;
    }
  }
  return false;
}

}  // namespace

SimulatedFaultWorld::SimulatedFaultWorld()
    : queue_(DispatchQueue::createSerial("fault-world")),
      audio_(SimulatedAudioHardwareService::create()),
      video_(SimulatedVideoHardwareService::create()),
      checker_(std::make_unique<ClientViewChecker>(queue_)) {
  audio_->setRecordingCalls(false);
  video_->setRecordingCalls(false);
  audio_->setCallHook([this](const SimulatedCall& call) { beforeCall(MediaType::Audio, call); });
  video_->setCallHook([this](const SimulatedCall& call) { beforeCall(MediaType::Video, call); });
  services_.install(audio_, video_);
  previousSink_ = InstallLogSink([this](std::string_view line) { onLogLine(line); });
  MainRunLoop::shared().useManualClockForTesting();

  controller_ = MediaDeviceController::create(queue_);
  checker_->attach(*controller_, /*followConsumers=*/true);
  switchOn();
  if (!DrainQueueServingMainThread(queue_)) queueProblem_ = "the first discovery never finished";
}

SimulatedFaultWorld::~SimulatedFaultWorld() {
  audio_->setCallHook(nullptr);
  video_->setCallHook(nullptr);
  audio_->clearFailures();
  video_->clearFailures();
  controller_->setObserveDevices(false);
  DrainQueueServingMainThread(queue_);
  controller_.reset();
  DrainQueueServingMainThread(queue_);
  MainRunLoop::shared().useSystemClockForTesting();
  InstallLogSink(std::move(previousSink_));
  services_.restore();
}

SimulatedObjectGraph& SimulatedFaultWorld::graph(MediaType mediaType) {
  if (mediaType == MediaType::Audio) return *audio_;
  return *video_;
}

std::vector<ObjectID> SimulatedFaultWorld::deviceList(MediaType mediaType) const {
  return mediaType == MediaType::Audio ? audio_->deviceList() : video_->deviceList();
}

void SimulatedFaultWorld::removeDevice(MediaType mediaType, ObjectID deviceID) {
  if (mediaType == MediaType::Audio) {
    audio_->removeDevice(deviceID);
  } else {
    video_->removeDevice(deviceID);
  }
}

// --- Steps ---------------------------------------------------------------------------------------

std::string SimulatedFaultWorld::step(ChoiceSource& choices) {
  const MediaType mediaType = choices.chance(2, 3) ? MediaType::Audio : MediaType::Video;
  const std::uint32_t roll = choices.below(100);
  std::string done;
  if (roll < kRestartRoll) {
    // A step may change several things; the queue sees them only once all are made, so a seed
    // replays the same way whatever the threads' timing.
    RunWithQueueParked(queue_, [&] { done = change(roll, choices, mediaType); });
  } else {
    // Switching off and on waits for the queue in between, so it cannot run with the queue held.
    done = restart();
  }
  // A device that vanishes during the library's reads queues one more device-list change behind
  // the drain's marker, so the queue is only quiet once a drain passes without a vanish.
  for (bool vanished = true; vanished && !queueProblem_;) {
    const std::uint64_t vanishesBefore = vanishes_.load();
    if (!DrainQueueServingMainThread(queue_)) {
      queueProblem_ = "the event-handler queue did not go quiet after: " + done;
    }
    vanished = vanishes_.load() != vanishesBefore;
  }
  return done;
}

std::string SimulatedFaultWorld::change(std::uint32_t roll, ChoiceSource& choices,
                                        MediaType mediaType) {
  // Weighted so that devices come and go often and the rarer faults still happen every few dozen
  // steps.
  if (roll < 18) return plug(choices, mediaType);
  if (roll < 30) return unplug(choices, mediaType);
  if (roll < 40) return setRunning(choices, mediaType);
  if (roll < 44) return changeConsumers(choices, mediaType);
  if (roll < 52) return changeInputSource(choices);
  if (roll < 64) return injectFailure(choices, mediaType);
  if (roll < 68) return clearFailures();
  if (roll < 74) return armVanish(choices);
  if (roll < 80) return rewriteDeviceList(choices, mediaType);
  if (roll < 86) return notifyWithoutChange(choices, mediaType);
  if (roll < 90) return spoilProperty(choices, mediaType);
  if (roll < 94) return advanceClock(choices);
  return toggleHogMode(choices);
}

std::string SimulatedFaultWorld::plug(ChoiceSource& choices, MediaType mediaType) {
  const ObjectID deviceID = kFirstDeviceID + choices.below(kDeviceIDCount);
  const DeviceIncarnation incarnation{.mediaType = mediaType,
                                      .deviceID = deviceID,
                                      .generation = ++generations_[{mediaType, deviceID}],
                                      .inputCount = choices.below(3),
                                      .outputCount = choices.below(3)};
  // Now and then a required string cannot be read: such a device must stay out of the cache.
  std::optional<std::string> name = incarnation.name();
  std::optional<std::string> uid = incarnation.uid();
  std::optional<std::string> modelUID = incarnation.modelUID();
  if (choices.chance(1, 16)) name = std::nullopt;
  if (choices.chance(1, 16)) uid = std::nullopt;
  if (choices.chance(1, 4)) modelUID = std::nullopt;
  const bool running = choices.chance(1, 3);

  // Plugging a device in under an ID that is in use replaces the device at once: the observer may
  // never see the ID leave the list.
  const auto listed = deviceList(mediaType);
  const bool replacing = std::find(listed.begin(), listed.end(), deviceID) != listed.end();
  if (replacing) removeDevice(mediaType, deviceID);

  // The fields both kinds of simulated device share, and sometimes a few consumers.
  const auto common = [&](auto device, const auto& transports) {
    device.deviceID = deviceID;
    device.name = name;
    device.deviceUID = uid;
    device.modelUID = modelUID;
    device.transportType = Pick(choices, transports);
    device.inputStreamCount = incarnation.inputCount;
    device.outputStreamCount = incarnation.outputCount;
    device.isRunning = running;
    if (choices.chance(1, 2)) device.consumers = SomeConsumers(choices);
    return device;
  };
  if (mediaType == MediaType::Audio) {
    auto device = common(SimulatedAudioDevice{}, kAudioTransports);
    if (choices.chance(3, 4)) {
      device.selectedDataSource = choices.below(4);
      device.dataSourceNames = {{1, DeviceIncarnation::inputSourceName(1)},
                                {2, DeviceIncarnation::inputSourceName(2)},
                                {3, std::nullopt}};
    }
    audio_->addDevice(device);
  } else {
    video_->addDevice(common(SimulatedVideoDevice{}, kVideoTransports));
  }
  return "plug in " + incarnation.name() + (replacing ? " replacing the device with its ID" : "") +
         (name ? "" : ", name unreadable") + (uid ? "" : ", UID unreadable");
}

std::string SimulatedFaultWorld::unplug(ChoiceSource& choices, MediaType mediaType) {
  const auto listed = deviceList(mediaType);
  if (listed.empty()) return std::string("unplug: no ") + std::string(Label(mediaType)) + " device";
  const ObjectID deviceID = listed[choices.below(static_cast<std::uint32_t>(listed.size()))];
  removeDevice(mediaType, deviceID);
  return "unplug " + Describe(mediaType, deviceID);
}

std::string SimulatedFaultWorld::setRunning(ChoiceSource& choices, MediaType mediaType) {
  const auto listed = deviceList(mediaType);
  if (listed.empty()) return "start or stop: no device";
  const ObjectID deviceID = listed[choices.below(static_cast<std::uint32_t>(listed.size()))];
  // Setting a property creates its object; one that vanished must stay gone.
  if (!graph(mediaType).hasObject(deviceID))
    return "start or stop: " + Describe(mediaType, deviceID) + " is gone";
  const bool running = choices.chance(1, 2);
  if (mediaType == MediaType::Audio) {
    audio_->setDeviceRunning(deviceID, running);
  } else {
    video_->setDeviceRunning(deviceID, running);
  }
  return (running ? "start " : "stop ") + Describe(mediaType, deviceID);
}

std::string SimulatedFaultWorld::changeConsumers(ChoiceSource& choices, MediaType mediaType) {
  const auto listed = deviceList(mediaType);
  if (listed.empty()) return "change consumers: no device";
  const ObjectID deviceID = listed[choices.below(static_cast<std::uint32_t>(listed.size()))];
  if (!graph(mediaType).hasObject(deviceID))
    return "change consumers: " + Describe(mediaType, deviceID) + " is gone";
  const auto consumers = SomeConsumers(choices);
  if (mediaType == MediaType::Audio) {
    audio_->setDeviceConsumers(deviceID, consumers);
  } else {
    video_->setDeviceConsumers(deviceID, consumers);
  }
  return "give " + Describe(mediaType, deviceID) + " " + std::to_string(consumers.size()) +
         " consumers";
}

std::string SimulatedFaultWorld::changeInputSource(ChoiceSource& choices) {
  const auto listed = deviceList(MediaType::Audio);
  if (listed.empty()) return "change input source: no device";
  const ObjectID deviceID = listed[choices.below(static_cast<std::uint32_t>(listed.size()))];
  if (!audio_->hasObject(deviceID)) return "change input source: audio device is gone";
  // Source 0 has no name and source 3 a null one.
  const std::uint32_t source = choices.below(4);
  audio_->setSelectedDataSource(deviceID, source);
  return "select input source " + std::to_string(source) + " on " +
         Describe(MediaType::Audio, deviceID);
}

std::string SimulatedFaultWorld::injectFailure(ChoiceSource& choices, MediaType mediaType) {
  if (++failureRules_[mediaType] > kMostFailureRules) {
    graph(mediaType).clearFailures();
    failureRules_[mediaType] = 1;
  }
  SimulatedFailure failure;
  std::string what = "make " + std::string(Label(mediaType));
  if (const std::uint32_t kind = choices.below(7); kind < 6) {
    failure.kind = static_cast<SimulatedCallKind>(kind);
    what += " calls of kind " + std::to_string(kind);
  } else {
    what += " calls of any kind";
  }
  switch (choices.below(4)) {
    case 0:
      break;
    case 1:
      failure.object = kAudioObjectSystemObject;
      break;
    default:
      failure.object = kFirstDeviceID + choices.below(kDeviceIDCount);
      break;
  }
  if (failure.object) what += " on object " + std::to_string(*failure.object);
  if (choices.chance(4, 5)) {
    failure.selector = Pick(choices, kSelectors);
    what += " for selector " + std::to_string(*failure.selector);
  }
  if (choices.chance(1, 8)) failure.scope = kAudioObjectPropertyScopeInput;
  failure.status = choices.chance(1, 8) ? static_cast<OSStatus>(choices.below(0xFFFFFFFFu))
                                        : Pick(choices, kStatuses);
  failure.count = choices.chance(1, 8) ? -1 : static_cast<int>(1 + choices.below(4));
  graph(mediaType).addFailure(failure);
  return what + " fail with " + std::to_string(failure.status) + ", " +
         (failure.count < 0 ? std::string("always") : std::to_string(failure.count) + " times");
}

std::string SimulatedFaultWorld::clearFailures() {
  audio_->clearFailures();
  video_->clearFailures();
  failureRules_.clear();
  return "clear all failures";
}

std::string SimulatedFaultWorld::armVanish(ChoiceSource& choices) {
  const int callsLeft = static_cast<int>(1 + choices.below(24));
  std::lock_guard lock(mutex_);
  vanish_ = Vanish{callsLeft};
  return "make a device vanish at the queue's call " + std::to_string(callsLeft) + " from now";
}

std::string SimulatedFaultWorld::rewriteDeviceList(ChoiceSource& choices, MediaType mediaType) {
  auto listed = deviceList(mediaType);
  std::string what = "rewrite the " + std::string(Label(mediaType)) + " device list: ";
  std::optional<std::uint32_t> reportedSize;
  switch (choices.below(5)) {
    case 0:
      std::rotate(
          listed.begin(),
          listed.begin() +
              (listed.empty() ? 0 : choices.below(static_cast<std::uint32_t>(listed.size()))),
          listed.end());
      what += "reordered";
      break;
    case 1:
      if (!listed.empty())
        listed.push_back(listed[choices.below(static_cast<std::uint32_t>(listed.size()))]);
      what += "an ID listed twice";
      break;
    case 2:
      listed.push_back(kFirstDeviceID + choices.below(kDeviceIDCount + 4));
      what += "an ID that may name no device";
      break;
    case 3:
      if (!listed.empty())
        listed.erase(listed.begin() + choices.below(static_cast<std::uint32_t>(listed.size())));
      what += "a device left out but still there";
      break;
    default:
      reportedSize = static_cast<std::uint32_t>(listed.size() * 4) + 1 + choices.below(7);
      what += "an odd size";
      break;
  }
  auto value = SimulatedPropertyValue::IDList(listed);
  if (reportedSize) value = value.withReportedSize(*reportedSize);
  graph(mediaType).setProperty(kAudioObjectSystemObject, kDeviceListAddress, value);
  return what;
}

std::string SimulatedFaultWorld::notifyWithoutChange(ChoiceSource& choices, MediaType mediaType) {
  const auto listed = deviceList(mediaType);
  if (listed.empty() || choices.chance(1, 3)) {
    graph(mediaType).notifyPropertyChanged(kAudioObjectSystemObject, kDeviceListAddress);
    return "notify the " + std::string(Label(mediaType)) + " device list without a change";
  }
  const ObjectID deviceID = listed[choices.below(static_cast<std::uint32_t>(listed.size()))];
  if (mediaType == MediaType::Audio && choices.chance(1, 2)) {
    graph(mediaType).notifyPropertyChanged(
        deviceID, {kAudioDevicePropertyDataSource, kAudioObjectPropertyScopeInput, 0});
    return "notify the input source of " + Describe(mediaType, deviceID) + " without a change";
  }
  if (choices.chance(1, 3)) {
    graph(mediaType).notifyPropertyChanged(deviceID, Global(kAudioDevicePropertyConsumers));
    return "notify the consumers of " + Describe(mediaType, deviceID) + " without a change";
  }
  graph(mediaType).notifyPropertyChanged(deviceID,
                                         Global(kAudioDevicePropertyDeviceIsRunningSomewhere));
  return "notify the running state of " + Describe(mediaType, deviceID) + " without a change";
}

std::string SimulatedFaultWorld::spoilProperty(ChoiceSource& choices, MediaType mediaType) {
  const auto listed = deviceList(mediaType);
  if (listed.empty()) return "spoil a property: no device";
  const ObjectID deviceID = listed[choices.below(static_cast<std::uint32_t>(listed.size()))];
  SimulatedObjectGraph& target = graph(mediaType);
  if (!target.hasObject(deviceID))
    return "spoil a property: " + Describe(mediaType, deviceID) + " is gone";
  const std::string device = Describe(mediaType, deviceID);
  switch (choices.below(6)) {
    case 5: {
      // Consumers that do not decode: random bytes, or a whole encoding cut short.
      std::vector<std::uint8_t> bytes;
      if (choices.chance(1, 2)) {
        bytes.resize(choices.below(40));
        for (auto& byte : bytes) byte = static_cast<std::uint8_t>(choices.below(256));
      } else {
        bytes = EncodeDeviceConsumers(SomeConsumers(choices));
        bytes.resize(bytes.size() - 1 - choices.below(static_cast<std::uint32_t>(bytes.size())));
      }
      target.setProperty(deviceID, Global(kAudioDevicePropertyConsumers),
                         SimulatedPropertyValue::Bytes(std::move(bytes)));
      return "garble the consumers of " + device;
    }
    case 0: {
      // Fewer or more bytes than the four the running state takes.
      std::vector<std::uint8_t> bytes(choices.chance(1, 2) ? 1 + choices.below(3) : 8, 1);
      target.setProperty(deviceID, Global(kAudioDevicePropertyDeviceIsRunningSomewhere),
                         SimulatedPropertyValue::Bytes(std::move(bytes)));
      return "give the running state of " + device + " an odd size";
    }
    case 1:
      target.setProperty(deviceID, Global(kAudioDevicePropertyTransportType),
                         SimulatedPropertyValue::Bytes({1, 2}), false);
      return "give the transport type of " + device + " an odd size";
    case 2:
      target.setProperty(deviceID, Global(kAudioObjectPropertyName),
                         SimulatedPropertyValue::String(std::nullopt), false);
      return "make the name of " + device + " a null reference";
    case 3:
      target.setProperty(deviceID, Global(kAudioDevicePropertyModelUID),
                         SimulatedPropertyValue::String(std::nullopt), false);
      return "make the model UID of " + device + " a null reference";
    default:
      // A string read where a number is expected.
      target.setProperty(deviceID, Global(kAudioDevicePropertyDeviceIsRunningSomewhere),
                         SimulatedPropertyValue::String("yes"));
      return "make the running state of " + device + " a string";
  }
}

std::string SimulatedFaultWorld::restart() {
  controller_->setObserveDevices(false);
  if (!DrainQueueServingMainThread(queue_)) queueProblem_ = "switching off never finished";
  checker_->forgetDevices();
  {
    // A device vanishing while the new observers fill their caches would be reported before the
    // initial discovery; that race belongs to the platform, so it is kept out of the schedule.
    std::lock_guard lock(mutex_);
    vanish_ = std::nullopt;
  }
  switchOn();
  return "switch observation off and on";
}

void SimulatedFaultWorld::switchOn() {
  // Starting calls the services on this thread while the new observers' cache fills call them on
  // the queue; which of the two used up a counted failure rule first would differ between runs.
  RunWithQueueParked(queue_, [this] { controller_->setObserveDevices(true); });
}

std::string SimulatedFaultWorld::advanceClock(ChoiceSource& choices) {
  const auto seconds = std::chrono::seconds(1 + choices.below(7));
  MainRunLoop::shared().advanceManualClockForTesting(seconds);
  return "move the clock " + std::to_string(seconds.count()) + " s on";
}

std::string SimulatedFaultWorld::toggleHogMode(ChoiceSource& choices) {
  const auto devices = controller_->connectedDevices();
  if (devices.empty()) return "exclusive access: no device";
  const MediaDevice& device = devices[choices.below(static_cast<std::uint32_t>(devices.size()))];
  switch (choices.below(3)) {
    case 0:
      device.enableHogMode();
      return "take exclusive access of " + Describe(device.mediaType, device.deviceID);
    case 1:
      device.disableHogMode();
      return "give up exclusive access of " + Describe(device.mediaType, device.deviceID);
    default:
      device.currentHogMode();
      return "read exclusive access of " + Describe(device.mediaType, device.deviceID);
  }
}

// --- Hooks ---------------------------------------------------------------------------------------

void SimulatedFaultWorld::beforeCall(MediaType mediaType, const SimulatedCall& call) {
  // Only the library's own reads on its queue are interrupted; the steps' calls are not.
  if (!queue_->isCurrent()) return;
  {
    std::lock_guard lock(mutex_);
    if (!vanish_ || --vanish_->callsLeft > 0) return;
    vanish_ = std::nullopt;
  }
  ObjectID victim = call.object;
  if (victim == kAudioObjectSystemObject) {
    const auto listed = deviceList(mediaType);
    if (listed.empty()) return;
    victim = listed.back();
  }
  removeDevice(mediaType, victim);
  ++vanishes_;
}

void SimulatedFaultWorld::onLogLine(std::string_view line) {
  ++logLines_;
  if (!ReportsBadObject(line)) return;
  std::lock_guard lock(mutex_);
  if (!logProblem_) logProblem_ = "logged a vanished object: \"" + std::string(line) + "\"";
}

// --- Checks --------------------------------------------------------------------------------------

std::optional<std::string> SimulatedFaultWorld::check() const {
  if (queueProblem_) return queueProblem_;
  if (auto violation = checker_->firstViolation()) return violation;
  {
    std::lock_guard lock(mutex_);
    if (logProblem_) return logProblem_;
  }
  if (checker_->isInsideBracket()) return "an updating bracket is still open on a quiet queue";
  return checker_->differenceFromCaches(*controller_);
}

}  // namespace harkwell::testing
