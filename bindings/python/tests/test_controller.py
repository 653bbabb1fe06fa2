"""The controller from Python: events through the iterator and the callbacks, on the simulated
services; the queue they run on; consumers; exclusive access."""

import os
import signal
import threading

import pytest

import harkwell
from conftest import add_microphone, event_summary, wait_until
from harkwell import (ConsumersChanged, DeviceEvent, MediaDeviceConsumer, MediaDeviceConsumerKind,
                      MediaDeviceEvent, MediaDeviceHogMode, MediaType)


def test_events_starts_observation_and_yields_the_initial_discovery_then_changes(
        services, make_controller):
    audio, video = services
    add_microphone(audio)
    video.add_device(200, "HD Webcam", "cam", transport_type=harkwell.MediaDeviceTransportType.USB)
    controller = make_controller()
    seen = []
    with controller.events(timeout=10) as events:
        assert controller.observe_devices
        for item in events:
            assert isinstance(item, DeviceEvent)
            seen.append(item)
            if len(seen) == 2:
                audio.set_device_running(100, True)
            elif len(seen) == 3:
                audio.set_selected_input_source(100, 2)
            elif len(seen) == 4:
                audio.remove_device(100)
            elif len(seen) == 5:
                break
    assert event_summary(seen) == [
        (MediaDeviceEvent.INITIAL_DISCOVERY, 100, False),
        (MediaDeviceEvent.INITIAL_DISCOVERY, 200, False),
        (MediaDeviceEvent.CHANGED_RUNNING, 100, True),
        (MediaDeviceEvent.CHANGED_INPUT_SOURCE, 100, True),
        (MediaDeviceEvent.DISCONNECTED, 100, False),
    ]
    assert seen[0].device.input_source_name == "Microphone"
    assert seen[3].device.input_source_name == "Line In"
    assert seen[1].device.media_type is MediaType.VIDEO
    assert events.closed


def test_the_iteration_ends_at_its_timeout(services, make_controller):
    controller = make_controller()
    assert list(controller.events(timeout=0.2)) == []


def test_close_from_another_thread_ends_the_iteration(services, make_controller):
    controller = make_controller()
    events = controller.events()
    threading.Timer(0.1, events.close).start()
    assert list(events) == []


def test_a_signal_handler_that_raises_ends_the_wait_with_its_exception(services, make_controller):
    class Stop(Exception):
        pass

    def raise_stop(signum, frame):
        raise Stop()

    previous = signal.signal(signal.SIGUSR1, raise_stop)
    try:
        controller = make_controller()
        threading.Timer(0.1, lambda: os.kill(os.getpid(), signal.SIGUSR1)).start()
        with pytest.raises(Stop):
            for _ in controller.events():
                pass
        with pytest.raises(Stop):
            threading.Timer(0.1, lambda: os.kill(os.getpid(), signal.SIGUSR1)).start()
            harkwell.run_main_loop()
    finally:
        signal.signal(signal.SIGUSR1, previous)


def test_callbacks_run_on_the_controllers_queue_with_brackets_around_the_discovery(
        services, make_controller):
    audio, _ = services
    add_microphone(audio)
    queue = harkwell.DispatchQueue("com.example.python-test")
    controller = make_controller(queue)
    assert controller.device_event_handler_queue.label == "com.example.python-test"
    calls = []
    controller.updating_devices_handler = lambda finished: calls.append(
        ("updating", finished, queue.is_current()))
    controller.device_event_handler = lambda event, device: calls.append(
        (event, device.device_id, queue.is_current(),
         threading.current_thread() is threading.main_thread()))
    controller.observe_devices = True
    assert wait_until(lambda: len(calls) == 3)
    assert calls == [("updating", False, True),
                     (MediaDeviceEvent.INITIAL_DISCOVERY, 100, True, False),
                     ("updating", True, True)]
    assert [d.device_id for d in controller.connected_devices] == [100]


def test_a_controller_that_never_observes_lists_nothing_and_calls_nothing(services,
                                                                           make_controller):
    audio, _ = services
    add_microphone(audio)
    controller = make_controller()
    calls = []
    controller.device_event_handler = lambda *args: calls.append(args)
    harkwell.run_main_loop(0.05)
    assert controller.connected_devices == []
    assert controller.connected_input_devices == []
    assert controller.connected_supported_devices == []
    assert calls == []
    assert not controller.observe_devices


def test_the_device_lists_keep_audio_before_video_and_filter_inputs_and_supported(
        services, make_controller):
    audio, video = services
    audio.add_device(102, "Speakers", "speakers", input_streams=0, output_streams=1)
    add_microphone(audio)
    video.add_device(200, "Camera", "cam")
    controller = make_controller()
    controller.observe_devices = True
    assert wait_until(lambda: len(controller.connected_devices) == 3)
    assert [d.media_type for d in controller.connected_devices][-1] is MediaType.VIDEO
    assert 102 not in [d.device_id for d in controller.connected_input_devices]
    assert 102 not in [d.device_id for d in controller.connected_supported_devices]


def test_a_handler_must_be_callable(services, make_controller):
    controller = make_controller()
    with pytest.raises(TypeError):
        controller.device_event_handler = 3
    handler = lambda event, device: None  # noqa: E731
    controller.device_event_handler = handler
    assert controller.device_event_handler is handler
    controller.device_event_handler = None
    assert controller.device_event_handler is None


def test_consumers_arrive_through_the_handler_the_iterator_and_the_query(services,
                                                                         make_controller):
    audio, _ = services
    recorder = MediaDeviceConsumer(process_id=4242, is_process_id_verified=True,
                                   process_name="arecord", application_name="ALSA plug-in")
    add_microphone(audio, consumers=[recorder])
    controller = make_controller()
    from_handler = []
    controller.device_consumers_handler = lambda device, consumers: from_handler.append(
        (device.device_id, consumers))
    items = []
    with controller.events(timeout=10, consumers=True) as events:
        for item in events:
            items.append(item)
            if len(items) == 2:
                echo = MediaDeviceConsumer(kind=MediaDeviceConsumerKind.FILTER, feeds=(recorder,))
                audio.set_device_consumers(100, [echo])
            if len(items) == 3:
                break
    assert isinstance(items[0], DeviceEvent)
    assert items[1] == ConsumersChanged(items[0].device, (recorder,))
    assert isinstance(items[2], ConsumersChanged)
    assert items[2].consumers[0].kind is MediaDeviceConsumerKind.FILTER
    assert items[2].consumers[0].feeds == (recorder,)
    assert wait_until(lambda: len(from_handler) == 2)
    assert from_handler[0] == (100, (recorder,))
    assert controller.consumers_of_device(items[0].device) == items[2].consumers


def test_exclusive_access_through_the_device_record(services, make_controller):
    audio, video = services
    add_microphone(audio)
    video.add_device(200, "Held Camera", "cam", hog_mode_pid=12)
    controller = make_controller()
    controller.observe_devices = True
    assert wait_until(lambda: len(controller.connected_devices) == 2)
    microphone, camera = controller.connected_devices
    assert microphone.current_hog_mode() == MediaDeviceHogMode.no_process()
    assert microphone.enable_hog_mode()
    assert microphone.current_hog_mode() == MediaDeviceHogMode.current_process()
    assert microphone.disable_hog_mode()
    assert microphone.current_hog_mode() == MediaDeviceHogMode.no_process()
    assert camera.current_hog_mode() == MediaDeviceHogMode.other_process(12)
    assert not camera.enable_hog_mode()
    assert not camera.disable_hog_mode()


def test_the_library_log_reaches_the_log_handler(services, make_controller, log_lines):
    audio, _ = services
    audio.add_device(100, "No Model", "no-model")
    controller = make_controller()
    next(iter(controller.events(timeout=10)))
    assert "Audio Error (unknown error): Model UID for device with ID 100 is nil" in log_lines


def test_a_simulated_device_refuses_unknown_fields_and_transports_of_the_other_media_type(
        services):
    audio, video = services
    with pytest.raises(TypeError, match="unexpected keyword argument 'colour'"):
        audio.add_device(100, "Mic", "mic", colour="red")
    with pytest.raises(ValueError, match="Video devices have no transport AirPlay"):
        video.add_device(200, "Cam", "cam", transport_type=harkwell.MediaDeviceTransportType.AIRPLAY)
    assert audio.device_ids == [] and video.device_ids == []


def test_an_iteration_dropped_without_close_stops_collecting_events(services, make_controller):
    audio, _ = services
    add_microphone(audio)
    controller = make_controller()
    for item in controller.events(timeout=10):
        break
    assert controller._open_event_streams_for_testing == 0
    kept = controller.events(timeout=10)
    assert controller._open_event_streams_for_testing == 1
    del kept
    assert controller._open_event_streams_for_testing == 0
