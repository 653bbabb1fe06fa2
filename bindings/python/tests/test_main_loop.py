"""The main run loop from Python: served by a program's own event loop through its descriptor,
and left in order when the interpreter exits while controllers still observe."""

import asyncio
import os
import subprocess
import sys
import textwrap

import harkwell
from conftest import add_microphone
from harkwell import MediaDeviceEvent, MediaDeviceTransportType


def test_an_asyncio_program_serves_the_main_loop_through_its_descriptor(services,
                                                                        make_controller):
    # A Bluetooth device is polled by a timer on the main run loop, and its disconnection waits
    # for the main thread to end that timer: the Disconnected event comes only if the loop is
    # served.
    audio, _ = services
    controller = make_controller()

    async def watch():
        loop = asyncio.get_running_loop()
        disconnected = loop.create_future()

        def on_event(event, device):
            if event is MediaDeviceEvent.DISCONNECTED:
                loop.call_soon_threadsafe(disconnected.set_result, device.device_id)
            elif device.device_id == 104:  # its first event, whichever it is
                loop.call_soon_threadsafe(audio.remove_device, device.device_id)

        controller.device_event_handler = on_event
        loop.add_reader(harkwell.main_loop_file_descriptor(), harkwell.perform_main_loop_work)
        try:
            controller.observe_devices = True
            add_microphone(audio, 104, name="Headset",
                           transport_type=MediaDeviceTransportType.BLUETOOTH)
            return await asyncio.wait_for(disconnected, timeout=10)
        finally:
            loop.remove_reader(harkwell.main_loop_file_descriptor())

    assert asyncio.run(watch()) == 104


def run_script(body):
    environment = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    return subprocess.run([sys.executable, "-c", textwrap.dedent(body)], env=environment,
                          capture_output=True, text=True, timeout=60)


def test_exiting_while_controllers_observe_and_call_back_ends_cleanly():
    result = run_script("""
        import threading
        import harkwell

        audio, video = harkwell.use_simulated_services()
        harkwell.set_log_handler(lambda line: None)
        audio.add_device(100, "Mic", "mic")
        audio.add_device(104, "Headset", "bt",
                         transport_type=harkwell.MediaDeviceTransportType.BLUETOOTH)
        seen = []
        for _ in range(3):
            controller = harkwell.MediaDeviceController(harkwell.DispatchQueue("q"))
            controller.device_event_handler = lambda event, device: seen.append(event)
            controller.observe_devices = True
        # Changes keep coming from another thread until the very end.
        def churn():
            running = False
            while True:
                running = not running
                audio.set_device_running(100, running)
        threading.Thread(target=churn, daemon=True).start()
        harkwell.run_main_loop(0.3)
        print("events:", len(seen) > 0)
    """)
    assert result.returncode == 0, result.stderr
    assert result.stdout == "events: True\n"
