// `harkwell hog status|on|off DEVICE [--json]`: who holds a device exclusively, and taking or
// releasing that hold. The hold belongs to this process, so it ends when harkwell exits.
//
// On Linux a sound card's hold is its reservation on the session bus: `status` names the holding
// program, `on` warns before it takes a card another program (usually the sound server) holds, and
// `on --hold` prints each request another program makes for the card while it holds it. Cameras
// have no such reservation there, and `hog` says so.
#include <charconv>
#include <sstream>

#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"
#include "tools/harkwell/Commands.h"
#include "tools/harkwell/DeviceJson.h"
#include "tools/harkwell/HogHold.h"
#include "tools/harkwell/ServiceSelection.h"
#include "tools/harkwell/SoundCardHold.h"
#include "tools/harkwell/TerminalText.h"

namespace harkwell::cli {
namespace {

struct DeviceLookup {
  std::optional<MediaDevice> device;
  std::string error;
};

// A decimal number matches a device ID first (the command line has refused leading zeros), so
// `hog on 100` means the device `harkwell list` shows as 100 even when another device's UID is
// "100"; anything else, and a number no device has as its ID, matches a device UID.
DeviceLookup FindDevice(const std::vector<MediaDevice>& devices, const std::string& wanted) {
  std::vector<MediaDevice> matches;
  std::uint32_t id = 0;
  const auto* end = wanted.data() + wanted.size();
  const auto [stop, status] = std::from_chars(wanted.data(), end, id);
  if (!wanted.empty() && status == std::errc() && stop == end) {
    for (const auto& device : devices) {
      if (device.deviceID == id) matches.push_back(device);
    }
  }
  if (matches.empty()) {
    for (const auto& device : devices) {
      if (device.deviceUID == wanted) matches.push_back(device);
    }
  }
  const std::string shown = EscapeForTerminal(wanted);
  if (matches.empty()) {
    return {std::nullopt,
            "no connected device has the UID or ID \"" + shown + "\" (harkwell list shows them)"};
  }
  if (matches.size() > 1) {
    return {std::nullopt, "more than one device has the ID " + shown + "; name it by its UID"};
  }
  return {matches.front(), {}};
}

std::string HogModeText(const MediaDeviceHogMode& mode) {
  std::ostringstream text;
  text << mode;
  return text.str();
}

std::string_view ActionName(HogAction action) {
  switch (action) {
    case HogAction::Status:
      return "status";
    case HogAction::On:
      return "on";
    case HogAction::Off:
      return "off";
  }
  return "status";
}

}  // namespace

int RunHog(const Options& options, CommandContext& context) {
  std::optional<StopSignals> holdSignals;
  if (options.hold) holdSignals.emplace();
  auto setup = InstallServices(options.services);
  if (!setup.services) {
    context.err.writeLine("harkwell: " + setup.error);
    return 1;
  }
  if (!AllSourcesAnswered(*setup.services, context.err)) {
    ReleaseServices();
    return kUnreachableSourceExitCode;
  }
  const auto lookup = FindDevice(ConnectedDevicesNow(), options.hogDevice);
  if (!lookup.device) {
    ReleaseServices();
    context.err.writeLine("harkwell: " + lookup.error);
    return 1;
  }
  const MediaDevice& device = *lookup.device;
  if (IsLinuxCamera(device, options.services)) {
    ReleaseServices();
    context.err.writeLine(
        "harkwell: cameras cannot be held exclusively on Linux: no program can "
        "reserve a camera there, so " +
        EscapeForTerminal(device.name) + " has no owner to show, take or release");
    return 1;
  }
  const std::optional<SoundCardHold> hold = SoundCardHoldFor(device);
  // Requests for the card are printed from before it is taken until it is given back.
  std::optional<ReleaseRequestPrinter> printer;
  if (options.hogAction == HogAction::On && options.hold && hold) {
    printer.emplace(device, *hold, options.json, context.out);
  }

  bool succeeded = true;
  switch (options.hogAction) {
    case HogAction::Status:
      break;
    case HogAction::On: {
      const MediaDeviceHogMode before = device.currentHogMode();
      if (hold && before.kind() == MediaDeviceHogMode::Kind::OtherProcess) {
        // enableHogMode() leaves a device another process holds alone; a card's holder may let it
        // go when asked, which is what the toggle does.
        context.err.writeLine(
            "harkwell: " + EscapeForTerminal(device.name) + " is held by " +
            HolderText(before, CardHolderFor(hold, before)) +
            "; taking the card from it (usually the sound server) silences every other program "
            "that plays or records through that card until harkwell gives it back");
        succeeded = AudioDeviceToggleHogModeForDeviceID(device.deviceID);
      } else {
        succeeded = device.enableHogMode();
      }
      break;
    }
    case HogAction::Off:
      succeeded = device.disableHogMode();
      break;
  }
  const MediaDeviceHogMode mode = device.currentHogMode();
  const std::optional<CardHolder> holder = CardHolderFor(hold, mode);

  if (options.json) {
    Json object = Json::object();
    object["device"] = DeviceToJson(device);
    object["action"] = ActionName(options.hogAction);
    object["succeeded"] = succeeded;
    const Json owner = HogModeToJson(mode);
    for (const auto& [key, value] : owner.items()) object[key] = value;
    if (holder) {
      object["ownerApplicationName"] = holder->applicationName;
      object["ownerDeviceName"] = holder->applicationDeviceName;
    }
    context.out.writeLine(DumpLine(object));
  } else if (holder) {
    context.out.writeLine(EscapeForTerminal(device.name) + ": " + HogModeText(mode) + ", held by " +
                          HolderText(mode, holder));
  } else {
    context.out.writeLine(EscapeForTerminal(device.name) + ": " + HogModeText(mode));
  }
  if (!succeeded) {
    ReleaseServices();
    context.err.writeLine(std::string("harkwell: could not ") +
                          (options.hogAction == HogAction::On ? "take" : "release") +
                          " exclusive access to " + EscapeForTerminal(device.name));
    return 1;
  }
  if (options.hogAction == HogAction::On) {
    HoldWhileAsked(options, device, context, holdSignals ? &*holdSignals : nullptr);
  }
  printer.reset();
  ReleaseServices();
  return 0;
}

}  // namespace harkwell::cli
