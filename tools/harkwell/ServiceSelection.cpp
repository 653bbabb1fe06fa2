#include "tools/harkwell/ServiceSelection.h"

#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "tools/harkwell/LogLines.h"

#if defined(HARKWELL_WITH_PULSEAUDIO)
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#endif
#if defined(HARKWELL_WITH_PIPEWIRE)
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireHardwareService.h"
#endif
#if defined(HARKWELL_WITH_V4L2)
#include "HarkwellFoundation/Platform/Linux/V4L2ServiceWithMediaServers.h"
#endif

namespace harkwell::cli {
namespace {

ServiceSetup Failure(std::string error) {
  return ServiceSetup{.services = std::nullopt, .error = std::move(error)};
}

// Runs `create` with the log lines written meanwhile kept in `lines` instead of shown. A service
// writes its start-up lines on the calling thread before its create() returns.
template <class Create>
auto KeepingStartupLog(std::vector<std::string>& lines, Create create) {
  auto previous = InstallLogSink([&lines](std::string_view line) { lines.emplace_back(line); });
  auto service = create();
  InstallLogSink(std::move(previous));
  return service;
}

std::shared_ptr<AudioHardwareService> MakePulseAudioService(std::vector<std::string>& startupLog) {
#if defined(HARKWELL_WITH_PULSEAUDIO)
  // libpulse finds the server as usual (PULSE_SERVER, client.conf, the user's own server).
  return KeepingStartupLog(startupLog, [] { return PulseAudioHardwareService::create(); });
#else
  (void)startupLog;
  return nullptr;
#endif
}

std::shared_ptr<AudioHardwareService> MakePipeWireService(std::vector<std::string>& startupLog) {
#if defined(HARKWELL_WITH_PIPEWIRE)
  // libpipewire finds the daemon as usual (PIPEWIRE_REMOTE, the user's pipewire-0 socket).
  return KeepingStartupLog(startupLog, [] { return PipeWireHardwareService::create(); });
#else
  (void)startupLog;
  return nullptr;
#endif
}

std::shared_ptr<VideoHardwareService> MakeV4L2Service(const ServiceOptions& options) {
#if defined(HARKWELL_WITH_V4L2)
  V4L2HardwareService::Options serviceOptions;
  if (options.sysfsRoot) serviceOptions.sysfsRoot = *options.sysfsRoot;
  if (options.devRoot) serviceOptions.devRoot = *options.devRoot;
  if (options.procRoot) serviceOptions.procRoot = *options.procRoot;
  // A stand-in sysfs tree comes without a udev database of its own.
  if (options.sysfsRoot) serviceOptions.udevDataRoot.clear();
  // PipeWire's graph, where a daemon answers, tells which cameras it streams to its clients.
  return MakeV4L2ServiceWithMediaServers(std::move(serviceOptions));
#else
  (void)options;
  return nullptr;
#endif
}

}  // namespace

AudioChoice EffectiveAudioChoice(const ServiceOptions& options) {
  if (options.audio) return *options.audio;
  return options.scenarioPath ? AudioChoice::Simulated : AudioChoice::Automatic;
}

VideoChoice EffectiveVideoChoice(const ServiceOptions& options) {
  if (options.video) return *options.video;
  return options.scenarioPath ? VideoChoice::Simulated : VideoChoice::V4L2;
}

std::optional<std::string> ServiceOptionsConflict(const ServiceOptions& options) {
  if (EffectiveVideoChoice(options) != VideoChoice::V4L2 &&
      (options.sysfsRoot || options.devRoot || options.procRoot)) {
    return "--sysfs-root, --dev-root and --proc-root need --video v4l2";
  }
  return std::nullopt;
}

ServiceSetup InstallServices(const ServiceOptions& options) {
  const AudioChoice audioChoice = EffectiveAudioChoice(options);
  const VideoChoice videoChoice = EffectiveVideoChoice(options);

  if (auto conflict = ServiceOptionsConflict(options)) return Failure(std::move(*conflict));

  std::optional<Scenario> scenario;
  if (options.scenarioPath) {
    auto loaded = LoadScenarioFile(*options.scenarioPath);
    if (auto* error = std::get_if<ScenarioError>(&loaded)) return Failure(error->text());
    scenario = std::move(std::get<Scenario>(loaded));
    if (scenario->hasAudio() && audioChoice != AudioChoice::Simulated) {
      return Failure(*options.scenarioPath +
                     ": the scenario has audio devices, which need --audio simulated");
    }
    if (scenario->hasVideo() && videoChoice != VideoChoice::Simulated) {
      return Failure(*options.scenarioPath +
                     ": the scenario has video devices, which need --video simulated");
    }
  }

  // Everything that can fail is checked before anything is installed.
  InstalledServices installed;
  std::shared_ptr<AudioHardwareService> audio;
  std::shared_ptr<SimulatedAudioHardwareService> simulatedAudio;
  switch (audioChoice) {
    case AudioChoice::Automatic:
      audio =
          KeepingStartupLog(installed.startupLog, [] { return MakeDefaultAudioHardwareService(); });
      break;
    case AudioChoice::PipeWire:
      audio = MakePipeWireService(installed.startupLog);
      if (!audio) return Failure("PipeWire is not available in this build of harkwell");
      break;
    case AudioChoice::Pulse:
      audio = MakePulseAudioService(installed.startupLog);
      if (!audio) return Failure("PulseAudio is not available in this build of harkwell");
      break;
    case AudioChoice::Simulated:
      simulatedAudio = SimulatedAudioHardwareService::create();
      audio = simulatedAudio;
      break;
    case AudioChoice::None:
      audio = SimulatedAudioHardwareService::create();
      break;
  }

  std::shared_ptr<VideoHardwareService> video;
  std::shared_ptr<SimulatedVideoHardwareService> simulatedVideo;
  switch (videoChoice) {
    case VideoChoice::V4L2:
      video = MakeV4L2Service(options);
      if (!video) return Failure("V4L2 is not available in this build of harkwell");
      break;
    case VideoChoice::Simulated:
      simulatedVideo = SimulatedVideoHardwareService::create();
      video = simulatedVideo;
      break;
    case VideoChoice::None:
      video = SimulatedVideoHardwareService::create();
      break;
  }

  // Long demos would otherwise keep every call in memory.
  if (simulatedAudio) simulatedAudio->setRecordingCalls(false);
  if (simulatedVideo) simulatedVideo->setRecordingCalls(false);

  for (const auto& line : installed.startupLog) {
    if (auto unreachable = UnreachableSourceNote(line)) installed.unreachableSource = *unreachable;
  }
  if (scenario) {
    installed.scenario =
        std::make_unique<ScenarioPlayer>(std::move(*scenario), simulatedAudio, simulatedVideo);
    installed.scenario->addStartingDevices();
  }
  InstallAudioHardwareService(std::move(audio));
  InstallVideoHardwareService(std::move(video));
  return ServiceSetup{.services = std::move(installed), .error = {}};
}

}  // namespace harkwell::cli
