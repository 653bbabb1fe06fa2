"""The GIL: callbacks take it on the controller's queue while Python threads run, the module
releases it while the library waits, and an exception in a callback is reported, not fatal."""

import sys
import threading

import harkwell
from conftest import add_microphone, wait_until
from harkwell import MediaDeviceEvent


def test_callbacks_run_under_the_gil_while_python_threads_run(services, make_controller):
    # Four busy threads hand the GIL on every switch interval; a short one keeps the test quick.
    previous_interval = sys.getswitchinterval()
    sys.setswitchinterval(0.0005)
    try:
        run_callbacks_beside_busy_threads(services, make_controller)
    finally:
        sys.setswitchinterval(previous_interval)


ROUNDS = 200


def run_callbacks_beside_busy_threads(services, make_controller):
    audio, _ = services
    add_microphone(audio)
    controller = make_controller()
    queue = controller.device_event_handler_queue
    stop = threading.Event()
    progress = [0] * 4

    def busy(index):
        while not stop.is_set():
            progress[index] += 1
            _ = [i * i for i in range(50)]

    threads = [threading.Thread(target=busy, args=(i,)) for i in range(4)]
    for thread in threads:
        thread.start()
    seen = []
    off_queue = []

    def on_event(event, device):
        if not queue.is_current() or threading.current_thread() is threading.main_thread():
            off_queue.append(event)
        # Python work that needs the GIL, and a controller query from inside the callback.
        seen.append((event, device.is_running, len(controller.connected_devices)))

    controller.device_event_handler = on_event
    controller.observe_devices = True
    try:
        assert wait_until(lambda: len(seen) == 1)
        for round_number in range(ROUNDS):
            audio.set_device_running(100, round_number % 2 == 0)
            assert wait_until(lambda: len(seen) == round_number + 2)
    finally:
        stop.set()
        for thread in threads:
            thread.join()
    assert off_queue == []
    assert seen[0] == (MediaDeviceEvent.INITIAL_DISCOVERY, False, 1)
    assert [running for _, running, _ in seen[1:]] == [i % 2 == 0 for i in range(ROUNDS)]
    assert all(count > 0 for count in progress)


def test_python_threads_run_while_the_main_thread_waits_in_the_library(services):
    ticks = []
    stop = threading.Event()

    def tick():
        while not stop.is_set() and len(ticks) < 1_000_000:
            ticks.append(1)

    thread = threading.Thread(target=tick)
    thread.start()
    try:
        before = len(ticks)
        harkwell.run_main_loop(0.2)
        during = len(ticks) - before
    finally:
        stop.set()
        thread.join()
    # With the GIL held for the whole wait the thread would only get the interpreter's switch
    # interval's worth of turns; released, it runs the whole time.
    assert during > 1000


def test_an_exception_in_a_callback_is_reported_and_the_controller_carries_on(
        services, make_controller, monkeypatch):
    audio, _ = services
    add_microphone(audio)
    reported = []
    monkeypatch.setattr("sys.unraisablehook", reported.append)
    controller = make_controller()
    delivered = []

    def failing(event, device):
        delivered.append(event)
        if event is MediaDeviceEvent.INITIAL_DISCOVERY:
            raise ValueError("a bug in the client")

    controller.device_event_handler = failing
    controller.updating_devices_handler = lambda finished: 1 / 0 if finished else None
    controller.observe_devices = True
    assert wait_until(lambda: len(reported) == 2)
    audio.set_device_running(100, True)
    assert wait_until(lambda: MediaDeviceEvent.CHANGED_RUNNING in delivered)
    assert [type(report.exc_value) for report in reported[:2]] == [ValueError, ZeroDivisionError]
    assert "device_event_handler" in str(reported[0].err_msg) + str(reported[0].object)
    assert str(reported[0].exc_value) == "a bug in the client"


def test_a_callback_can_close_an_iteration_and_switch_observation_off(services, make_controller):
    audio, _ = services
    controller = make_controller()
    events = controller.events(timeout=10)

    def on_event(event, device):
        events.close()
        controller.observe_devices = False

    controller.device_event_handler = on_event
    add_microphone(audio)
    # The iteration may still hand out the event the callback was given (both hear of it), and
    # ends there.
    assert [item.device.device_id for item in events] in ([], [100])
    assert events.closed
    assert wait_until(lambda: not controller.observe_devices)


def test_work_posted_to_the_queue_runs_there(services):
    queue = harkwell.DispatchQueue("com.example.posted")
    ran = []
    queue.post(lambda: ran.append(queue.is_current()))
    assert wait_until(lambda: ran)
    assert ran == [True]
