#!/usr/bin/env python3
"""Prints every microphone, speaker and camera event, like `harkwell watch`.

    watch_devices.py [--scenario FILE] [--duration SECONDS]

With --scenario it watches the scenario's simulated devices and ends after its last step.
"""

import argparse

import harkwell

parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
parser.add_argument("--scenario", help="a scenario file of simulated devices")
parser.add_argument("--duration", type=float, help="stop after this many seconds")
arguments = parser.parse_args()

scenario = harkwell.Scenario.load(arguments.scenario) if arguments.scenario else None
controller = harkwell.MediaDeviceController()
events = controller.events(timeout=arguments.duration, until=scenario)  # starts observing
if scenario:
    scenario.start(controller)  # its clock starts once the initial discovery is out

try:
    for item in events:
        device = item.device
        state = "running" if device.is_running else "idle"
        print(f"{item.event!s:<19} {device.media_type!s:<6} {device.device_id:>4}  {state:<7}  "
              f"{device.name}")
except KeyboardInterrupt:
    pass
finally:
    controller.observe_devices = False
