"""The values harkwell hands to Python: enumerations and frozen records.

Enumeration members have Python names (``MediaDeviceEvent.CHANGED_RUNNING``); their ``value`` is the
library's ordinal, and ``case_name`` (also ``str()``) is the library's own name ("ChangedRunning"),
the text the harkwell program prints and writes in JSON.
"""

from __future__ import annotations

import enum
from dataclasses import dataclass, field
from typing import Optional, Tuple

from . import _harkwell

_CASE_NAMES = _harkwell._case_names()


class _LibraryEnum(enum.Enum):
    @property
    def case_name(self) -> str:
        return _CASE_NAMES[type(self).__name__][self.value]

    @classmethod
    def from_case_name(cls, name: str):
        """The member whose library name is ``name``; ValueError when none is."""
        try:
            return cls(_CASE_NAMES[cls.__name__].index(name))
        except ValueError:
            raise ValueError(f"{name!r} is not a {cls.__name__} case") from None

    def __str__(self) -> str:
        return self.case_name


class MediaType(_LibraryEnum):
    """Which back end produced a device record."""

    AUDIO = 0
    VIDEO = 1


class MediaDeviceTransportType(_LibraryEnum):
    """How a device is attached to the computer."""

    UNKNOWN = 0
    AGGREGATE = 1
    AIRPLAY = 2
    AVB = 3
    BLUETOOTH = 4
    BLUETOOTH_LE = 5
    BUILT_IN = 6
    DISPLAY_PORT = 7
    FIREWIRE = 8
    HDMI = 9
    NETWORK = 10
    PCI = 11
    THUNDERBOLT = 12
    USB = 13
    VIRTUAL = 14
    WIRELESS = 15
    OTHER = 16


class MediaDeviceEvent(_LibraryEnum):
    """What happened to a device."""

    INITIAL_DISCOVERY = 0
    CONNECTED = 1
    DISCONNECTED = 2
    CHANGED_RUNNING = 3
    CHANGED_INPUT_SOURCE = 4


class MediaDeviceUnsupportedReason(_LibraryEnum):
    """Why a device is not supported (only pure input devices are)."""

    NO_INPUT_CHANNELS = 0
    INPUT_AND_OUTPUT_CHANNELS = 1

    @staticmethod
    def for_channel_counts(input_channel_count: int,
                           output_channel_count: int) -> Optional[MediaDeviceUnsupportedReason]:
        """The reason for a device with these counts; None for a supported device."""
        ordinal = _harkwell._unsupported_reason_ordinal(input_channel_count, output_channel_count)
        return None if ordinal is None else MediaDeviceUnsupportedReason(ordinal)


class MediaDeviceConsumerKind(_LibraryEnum):
    """What a consumer does with a device's data."""

    APPLICATION = 0
    LEVEL_METER = 1
    MONITOR = 2
    FILTER = 3
    MEDIA_SERVER = 4


class MediaDeviceConsumerSandbox(_LibraryEnum):
    """The sandbox a consumer runs in."""

    NONE = 0
    FLATPAK = 1
    SNAP = 2


@dataclass(frozen=True)
class MediaDeviceHogMode:
    """Who holds a device exclusively. ``pid`` is set for OTHER_PROCESS only."""

    class Kind(enum.Enum):
        NO_PROCESS = 0
        CURRENT_PROCESS = 1
        OTHER_PROCESS = 2

    kind: MediaDeviceHogMode.Kind
    pid: Optional[int] = None

    @staticmethod
    def for_pid(pid: int) -> MediaDeviceHogMode:
        """-1 is NO_PROCESS, this process's pid CURRENT_PROCESS, any other OTHER_PROCESS."""
        return _harkwell._hog_mode_for_pid(pid)

    @staticmethod
    def no_process() -> MediaDeviceHogMode:
        return MediaDeviceHogMode(MediaDeviceHogMode.Kind.NO_PROCESS)

    @staticmethod
    def current_process() -> MediaDeviceHogMode:
        return MediaDeviceHogMode(MediaDeviceHogMode.Kind.CURRENT_PROCESS)

    @staticmethod
    def other_process(pid: int) -> MediaDeviceHogMode:
        return MediaDeviceHogMode(MediaDeviceHogMode.Kind.OTHER_PROCESS, pid)


@dataclass(frozen=True)
class MediaDevice:
    """A snapshot of one device, as the library reported it. Compares field by field."""

    device_id: int
    media_type: MediaType
    device_uid: str
    model_uid: Optional[str]
    transport_type: MediaDeviceTransportType
    name: str
    input_source_name: Optional[str]
    input_channel_count: int
    output_channel_count: int
    is_connected: bool
    is_running: bool
    unsupported_reason: Optional[MediaDeviceUnsupportedReason]

    @property
    def is_supported(self) -> bool:
        return self.unsupported_reason is None

    @property
    def has_input_channels(self) -> bool:
        return self.input_channel_count != 0

    # Exclusive access. Each call asks the platform (on Linux the session bus, for up to a
    # second) and uses only device_id and media_type.
    def enable_hog_mode(self) -> bool:
        """Takes the device for this process; True when this process holds it afterwards."""
        return _harkwell._enable_hog_mode(self)

    def current_hog_mode(self) -> MediaDeviceHogMode:
        """Who holds the device; NO_PROCESS when that cannot be read."""
        return _harkwell._current_hog_mode(self)

    def disable_hog_mode(self) -> bool:
        """Gives the device back; True when this process does not hold it afterwards."""
        return _harkwell._disable_hog_mode(self)


@dataclass(frozen=True)
class MediaDeviceConsumer:
    """One process that uses a device (records, plays or streams), as its service saw it."""

    process_id: int = -1
    is_process_id_verified: bool = False
    executable_path: Optional[str] = None
    process_name: Optional[str] = None
    application_name: Optional[str] = None
    application_id: Optional[str] = None
    sandbox: MediaDeviceConsumerSandbox = MediaDeviceConsumerSandbox.NONE
    sandbox_application_id: Optional[str] = None
    kind: MediaDeviceConsumerKind = MediaDeviceConsumerKind.APPLICATION
    feeds: Tuple[MediaDeviceConsumer, ...] = field(default_factory=tuple)

    @property
    def reaches_application(self) -> bool:
        """An application, or a filter or media server with one at the end of its chains."""
        return _harkwell._consumer_reaches_application(self)


@dataclass(frozen=True)
class DeviceEvent:
    """One event of ``controller.events()``."""

    event: MediaDeviceEvent
    device: MediaDevice


@dataclass(frozen=True)
class ConsumersChanged:
    """A device's consumers changed (``controller.events(consumers=True)``)."""

    device: MediaDevice
    consumers: Tuple[MediaDeviceConsumer, ...]


def _check_case_names() -> None:
    for enumeration in (MediaType, MediaDeviceTransportType, MediaDeviceEvent,
                        MediaDeviceUnsupportedReason, MediaDeviceConsumerKind,
                        MediaDeviceConsumerSandbox):
        if len(enumeration) != len(_CASE_NAMES[enumeration.__name__]):
            raise ImportError(f"harkwell: {enumeration.__name__} does not match the library")


_check_case_names()
