"""Scenario files played from Python, as `harkwell watch --scenario` plays them."""

import json

import pytest

import harkwell
from conftest import REPOSITORY, event_summary, wait_until
from harkwell import MediaDeviceEvent as E

QUICK = {
    "audio": [{"deviceID": 100, "deviceUID": "mic", "name": "Mic",
               "inputSources": {"1": "Microphone", "2": "Line In"}, "selectedInputSource": 1}],
    "video": [{"deviceID": 200, "deviceUID": "cam", "name": "Camera", "transportType": "USB"}],
    "steps": [
        {"at": 0.0, "action": "run", "device": 100},
        {"at": 0.0, "action": "select-source", "device": "mic", "source": 2},
        {"at": 0.05, "action": "plug", "mediaType": "Audio",
         "device": {"deviceID": 104, "deviceUID": "bt", "name": "Headset",
                    "transportType": "Bluetooth", "outputChannelCount": 1}},
        {"at": 0.1, "action": "unplug", "device": 104},
        {"at": 0.1, "action": "run", "device": "cam"},
    ],
}


@pytest.fixture
def quick_scenario(tmp_path, log_lines):
    path = tmp_path / "quick.json"
    path.write_text(json.dumps(QUICK))
    return harkwell.Scenario.load(str(path))


def test_a_scenario_plays_every_step_in_order_and_ends_the_iteration(quick_scenario,
                                                                     make_controller):
    controller = make_controller()
    events = controller.events(timeout=30, until=quick_scenario)
    quick_scenario.start(controller)
    assert event_summary(events) == [
        (E.INITIAL_DISCOVERY, 100, False),
        (E.INITIAL_DISCOVERY, 200, False),
        (E.CHANGED_RUNNING, 100, True),
        (E.CHANGED_INPUT_SOURCE, 100, True),
        (E.CONNECTED, 104, False),
        (E.DISCONNECTED, 104, False),
        (E.CHANGED_RUNNING, 200, True),
    ]
    assert quick_scenario.finished


def test_run_main_loop_plays_a_scenario_to_its_end_for_the_callbacks(quick_scenario,
                                                                     make_controller):
    controller = make_controller()
    seen = []
    controller.device_event_handler = lambda event, device: seen.append(event)
    controller.observe_devices = True
    quick_scenario.start(controller)
    assert quick_scenario.started and not quick_scenario.finished
    harkwell.run_main_loop(30, until=quick_scenario)
    assert quick_scenario.finished
    assert seen[-1] is E.CHANGED_RUNNING and len(seen) == 7
    with pytest.raises(ValueError, match="already started"):
        quick_scenario.start(controller)


def test_the_example_scenario_loads_with_its_starting_devices(make_controller, log_lines):
    scenario = harkwell.Scenario.load(str(REPOSITORY / "examples" / "scenario.json"))
    assert scenario.audio_service.device_ids == [100, 102]
    assert scenario.video_service.device_ids == [200]
    controller = make_controller()
    controller.observe_devices = True
    assert wait_until(lambda: len(controller.connected_devices) == 3)


def test_a_scenario_that_does_not_load_names_the_file_line_and_column(tmp_path):
    path = tmp_path / "broken.json"
    path.write_text('{\n  "audio": [{"deviceID": "one"}]\n}\n')
    with pytest.raises(harkwell.ScenarioError, match=r"broken\.json:2:") as raised:
        harkwell.Scenario.load(str(path))
    assert isinstance(raised.value, ValueError)
    with pytest.raises(harkwell.ScenarioError, match="No such file or directory"):
        harkwell.Scenario.load(str(tmp_path / "missing.json"))
