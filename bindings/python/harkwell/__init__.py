"""harkwell: which microphones, speakers and cameras are connected and in use.

    import harkwell

    controller = harkwell.MediaDeviceController()
    for item in controller.events(timeout=10):
        print(item.event, item.device.name, item.device.is_running)

Callbacks (``device_event_handler``, ``updating_devices_handler``, ``device_consumers_handler``) run
on the controller's queue, a thread of the library's, with the GIL held; an exception they raise
goes to ``sys.unraisablehook`` and the controller carries on. The library's main run loop must keep
running on the main thread: ``events()`` and ``run_main_loop()`` serve it while they wait there.
"""

import atexit as _atexit

from . import _harkwell, _records
from ._records import (
    ConsumersChanged,
    DeviceEvent,
    MediaDevice,
    MediaDeviceConsumer,
    MediaDeviceConsumerKind,
    MediaDeviceConsumerSandbox,
    MediaDeviceEvent,
    MediaDeviceHogMode,
    MediaDeviceTransportType,
    MediaDeviceUnsupportedReason,
    MediaType,
)

_harkwell._use_record_types(_records)
# Before the interpreter finalises: stop every observing controller, then let no library thread
# run Python any more.
_atexit.register(_harkwell._shutdown)

DispatchQueue = _harkwell.DispatchQueue
EventIterator = _harkwell.EventIterator
MediaDeviceController = _harkwell.MediaDeviceController
Scenario = _harkwell.Scenario
ScenarioError = _harkwell.ScenarioError
SimulatedAudioService = _harkwell.SimulatedAudioService
SimulatedVideoService = _harkwell.SimulatedVideoService
computer_model_identifier = _harkwell.computer_model_identifier
main_loop_file_descriptor = _harkwell.main_loop_file_descriptor
perform_main_loop_work = _harkwell.perform_main_loop_work
run_main_loop = _harkwell.run_main_loop
set_log_handler = _harkwell.set_log_handler
use_default_services = _harkwell.use_default_services


def use_simulated_services():
    """Installs fresh, empty simulated services and returns them (audio, video)."""
    audio = SimulatedAudioService()
    video = SimulatedVideoService()
    audio.install()
    video.install()
    return audio, video


__all__ = [
    "ConsumersChanged", "DeviceEvent", "DispatchQueue", "EventIterator", "MediaDevice",
    "MediaDeviceConsumer", "MediaDeviceConsumerKind", "MediaDeviceConsumerSandbox",
    "MediaDeviceController", "MediaDeviceEvent", "MediaDeviceHogMode", "MediaDeviceTransportType",
    "MediaDeviceUnsupportedReason", "MediaType", "Scenario", "ScenarioError",
    "SimulatedAudioService", "SimulatedVideoService", "computer_model_identifier",
    "main_loop_file_descriptor", "perform_main_loop_work", "run_main_loop", "set_log_handler",
    "use_default_services", "use_simulated_services",
]
