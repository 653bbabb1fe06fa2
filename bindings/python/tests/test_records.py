"""Records and enumerations: Python names, the library's ordinals and case names, values."""

import dataclasses
import os

import pytest

import harkwell
from harkwell import (MediaDevice, MediaDeviceConsumer, MediaDeviceConsumerKind,
                      MediaDeviceEvent, MediaDeviceHogMode, MediaDeviceTransportType,
                      MediaDeviceUnsupportedReason, MediaType)


def microphone(**changes):
    fields = dict(device_id=7, media_type=MediaType.AUDIO, device_uid="mic", model_uid=None,
                  transport_type=MediaDeviceTransportType.USB, name="Mic",
                  input_source_name="Microphone", input_channel_count=1, output_channel_count=0,
                  is_connected=True, is_running=False, unsupported_reason=None)
    fields.update(changes)
    return MediaDevice(**fields)


def test_enumerations_are_python_enums_whose_values_are_the_library_ordinals():
    import enum
    for enumeration in (MediaType, MediaDeviceTransportType, MediaDeviceEvent,
                        MediaDeviceUnsupportedReason, MediaDeviceConsumerKind,
                        harkwell.MediaDeviceConsumerSandbox):
        assert issubclass(enumeration, enum.Enum)
        names = harkwell._harkwell._case_names()[enumeration.__name__]
        assert [member.case_name for member in enumeration] == names
        assert [member.value for member in enumeration] == list(range(len(names)))
    assert MediaDeviceTransportType.OTHER.value == 16
    assert MediaDeviceTransportType.UNKNOWN.value == 0
    assert MediaDeviceEvent.CHANGED_INPUT_SOURCE.value == 4


def test_a_member_prints_as_the_library_case_name_and_is_found_by_it():
    assert str(MediaDeviceEvent.CHANGED_RUNNING) == "ChangedRunning"
    assert MediaDeviceTransportType.from_case_name("BluetoothLE") is MediaDeviceTransportType.BLUETOOTH_LE
    with pytest.raises(ValueError, match="'Floppy' is not a MediaDeviceTransportType case"):
        MediaDeviceTransportType.from_case_name("Floppy")


def test_members_compare_equal_exactly_when_they_are_the_same_case():
    assert MediaDeviceTransportType.USB == MediaDeviceTransportType(13)
    assert MediaDeviceTransportType.USB != MediaDeviceTransportType.PCI
    assert len({MediaType.AUDIO, MediaType.AUDIO, MediaType.VIDEO}) == 2


@pytest.mark.parametrize("counts, reason", [
    ((0, 0), MediaDeviceUnsupportedReason.NO_INPUT_CHANNELS),
    ((0, 5), MediaDeviceUnsupportedReason.NO_INPUT_CHANNELS),
    ((2, 0), None),
    ((2, 2), MediaDeviceUnsupportedReason.INPUT_AND_OUTPUT_CHANNELS),
    ((1, 1), MediaDeviceUnsupportedReason.INPUT_AND_OUTPUT_CHANNELS),
])
def test_the_unsupported_reason_follows_the_channel_counts(counts, reason):
    assert MediaDeviceUnsupportedReason.for_channel_counts(*counts) == reason


def test_a_device_record_is_a_frozen_value_with_snake_case_fields():
    device = microphone()
    assert [f.name for f in dataclasses.fields(device)] == [
        "device_id", "media_type", "device_uid", "model_uid", "transport_type", "name",
        "input_source_name", "input_channel_count", "output_channel_count", "is_connected",
        "is_running", "unsupported_reason"]
    assert device == microphone()
    assert device != microphone(is_running=True)
    assert hash(device) == hash(microphone())
    with pytest.raises(dataclasses.FrozenInstanceError):
        device.name = "Other"
    assert repr(device).startswith("MediaDevice(device_id=7, media_type=<MediaType.AUDIO: 0>")
    assert dataclasses.replace(device, name="Other").name == "Other"


def test_a_device_without_inputs_has_no_input_channels_and_is_not_supported():
    device = microphone(input_channel_count=0, output_channel_count=1,
                        unsupported_reason=MediaDeviceUnsupportedReason.NO_INPUT_CHANNELS)
    assert not device.has_input_channels
    assert not device.is_supported
    assert microphone().is_supported and microphone().has_input_channels


def test_hog_modes_follow_the_pid_and_compare_by_case_and_pid():
    assert MediaDeviceHogMode.for_pid(-1) == MediaDeviceHogMode.no_process()
    assert MediaDeviceHogMode.for_pid(os.getpid()) == MediaDeviceHogMode.current_process()
    assert MediaDeviceHogMode.for_pid(0) == MediaDeviceHogMode.other_process(0)
    assert MediaDeviceHogMode.other_process(12) == MediaDeviceHogMode.other_process(12)
    assert MediaDeviceHogMode.other_process(12) != MediaDeviceHogMode.other_process(13)
    assert MediaDeviceHogMode.other_process(12) != MediaDeviceHogMode.current_process()
    assert MediaDeviceHogMode.for_pid(12).pid == 12
    assert MediaDeviceHogMode.no_process().pid is None


def test_a_consumer_record_defaults_to_an_unknown_application_and_nests_what_it_feeds():
    app = MediaDeviceConsumer(process_id=42, application_name="Recorder")
    assert app.kind is MediaDeviceConsumerKind.APPLICATION
    assert app.reaches_application
    meter = MediaDeviceConsumer(kind=MediaDeviceConsumerKind.LEVEL_METER)
    assert not meter.reaches_application
    echo = MediaDeviceConsumer(kind=MediaDeviceConsumerKind.FILTER, feeds=(app,))
    assert echo.reaches_application
    assert echo == MediaDeviceConsumer(kind=MediaDeviceConsumerKind.FILTER, feeds=(app,))
    assert not MediaDeviceConsumer(kind=MediaDeviceConsumerKind.FILTER).reaches_application


def test_the_model_identifier_is_text_or_none():
    model = harkwell.computer_model_identifier()
    assert model is None or (isinstance(model, str) and model)
