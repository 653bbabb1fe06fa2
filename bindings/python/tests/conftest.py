"""Shared fixtures: the package under test, simulated services and controllers that are switched
off after each test, and waiting on a condition while the main run loop is served."""

import os
import pathlib
import time

import pytest

import harkwell

REPOSITORY = pathlib.Path(__file__).resolve().parents[3]


def pytest_sessionstart(session):
    expected = os.environ.get("HARKWELL_EXPECTED_PACKAGE_DIR")
    actual = pathlib.Path(harkwell.__file__).resolve().parent
    if expected and pathlib.Path(expected).resolve() != actual:
        raise pytest.UsageError(f"testing the harkwell package in {actual}, not the one in {expected}")


def wait_until(condition, timeout=10.0):
    """Serves the main run loop until condition() is true; False after `timeout` seconds."""
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() >= deadline:
            return False
        harkwell.run_main_loop(0.005)
    return True


@pytest.fixture
def log_lines():
    """The library's log lines during the test (instead of stderr)."""
    lines = []
    harkwell.set_log_handler(lines.append)
    yield lines
    harkwell.set_log_handler(None)


@pytest.fixture
def services(log_lines):
    """Fresh simulated services: (audio, video)."""
    return harkwell.use_simulated_services()


@pytest.fixture
def make_controller():
    """Makes controllers that are switched off, with their handlers cleared, after the test."""
    made = []

    def make(*args, **kwargs):
        controller = harkwell.MediaDeviceController(*args, **kwargs)
        made.append(controller)
        return controller

    yield make
    for controller in made:
        controller.observe_devices = False
        controller.device_event_handler = None
        controller.updating_devices_handler = None
        controller.device_consumers_handler = None
    # Let each queue finish what it had started, serving the main loop meanwhile.
    for controller in made:
        drained = []
        controller.device_event_handler_queue.post(lambda: drained.append(True))
        assert wait_until(lambda: drained), "a controller's queue did not drain"


def event_summary(items):
    """(event, device ID, running) of each DeviceEvent."""
    return [(item.event, item.device.device_id, item.device.is_running) for item in items]


def add_microphone(audio, device_id=100, name="USB Microphone", **fields):
    """A USB microphone with two input sources, the first selected."""
    settings = dict(model_uid="0d8c:0014", transport_type=harkwell.MediaDeviceTransportType.USB,
                    input_sources={1: "Microphone", 2: "Line In"}, selected_input_source=1)
    settings.update(fields)
    audio.add_device(device_id, name, f"mic-{device_id}", **settings)
