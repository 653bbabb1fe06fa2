"""10,000 events through a callback and an iteration at once, with memory flat."""

import ctypes
import gc
import os

import harkwell
from conftest import add_microphone, wait_until
from harkwell import MediaDeviceEvent

EVENTS = 10_000
WARM_UP = 1_000
# Memory in use may move by allocator noise; a leak of even 200 bytes per event (a record, a
# list, a reference to a callback's arguments) would add about 1.8 MiB over the 9,000 events
# measured.
TOLERANCE_BYTES = 1536 * 1024


def memory_in_use():
    """Resident memory; under a sanitizer, whose allocator holds freed memory back for a while,
    the bytes its allocator has handed out and not had back (the interpreter runs with
    PYTHONMALLOC=malloc there, so Python's own objects count too)."""
    try:
        in_use = ctypes.CDLL(None).__sanitizer_get_current_allocated_bytes
    except AttributeError:
        with open("/proc/self/statm") as statm:
            return "resident memory", int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
    in_use.restype = ctypes.c_size_t
    return "sanitizer heap in use", in_use()


def live_records():
    return sum(1 for o in gc.get_objects() if isinstance(o, (harkwell.MediaDevice,
                                                             harkwell.DeviceEvent)))


def test_ten_thousand_events_leave_memory_flat(services, make_controller):
    audio, _ = services
    add_microphone(audio)
    controller = make_controller()
    from_callback = [0]

    def count(event, device):
        from_callback[0] += 1

    controller.device_event_handler = count
    baseline = None
    records_before = None
    with controller.events(timeout=300) as events:
        first = next(events)
        assert first.event is MediaDeviceEvent.INITIAL_DISCOVERY
        del first
        for index in range(EVENTS):
            audio.set_device_running(100, index % 2 == 0)
            item = next(events)
            assert item.event is MediaDeviceEvent.CHANGED_RUNNING
            assert item.device.is_running == (index % 2 == 0)
            del item
            if index + 1 == WARM_UP:
                gc.collect()
                meter, baseline = memory_in_use()
                records_before = live_records()
    assert wait_until(lambda: from_callback[0] == EVENTS + 1)
    gc.collect()
    growth = memory_in_use()[1] - baseline
    print(f"{meter} after {WARM_UP} events: {baseline} bytes; "
          f"growth over the next {EVENTS - WARM_UP}: {growth} bytes")
    assert growth < TOLERANCE_BYTES
    assert live_records() <= records_before
