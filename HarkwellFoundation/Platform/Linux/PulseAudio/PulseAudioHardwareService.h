// The audio hardware service on Linux: a PulseAudio server (or PipeWire through pipewire-pulse),
// reached through libpulse, shown as the audio seam's objects and properties.
//
// The service keeps a mirror of the server's sources, sinks, cards, recording and playback streams,
// kept current on libpulse's loop thread by a subscription. Reads answer from the mirror under a
// short lock and never wait on the server. A change updates the mirror first and then queues each
// listener block of a property whose value changed on the listener's own queue.
//
// How the server appears through the seam:
//
//   seam                          PulseAudio
//   ----------------------------  ----------------------------------------------------------------
//   device                        one per source and one per sink; monitor sources are left out
//   device ID                     from the UID by the stable rule (StableDeviceID.h), audio space:
//                                 the FNV-1a hash of the name picks an even ID from 65536 to
//                                 131070, the same in every process and after a server restart;
//                                 when two present devices' names share a slot, the name that sorts
//                                 first keeps it and the next takes the following free even ID (a
//                                 source before a sink of the same name)
//   "dev#" (system object 1)      the present devices' IDs, ascending
//   "lnam"                        the source's or sink's description
//   "uid "                        the source's or sink's name
//   "muid"                        "vendor:product" from "device.vendor.id" and "device.product.id"
//                                 of the device, else of its card; a null string when not known
//   "tran"                        from "device.bus", "device.api", "device.form_factor" and
//                                 "device.class" of the device, else of its card, first match wins:
//                                 bus bluetooth or api bluez/bluez5 -> "blue"; bus usb -> "usb ";
//                                 bus firewire/ieee1394 -> "1394"; form factor internal -> "bltn";
//                                 bus pci -> "pci "; class abstract or filter, or neither bus nor
//                                 card -> "virt"; otherwise 0 (unknown)
//   "stm#"                        a source has one input stream, a sink one output stream (4 bytes
//                                 each; the stream's ID is the device's ID + 1 and is not an
//                                 object)
//   "gone" (running somewhere)    the server does not hold the device suspended (a stream on an
//                                 IDLE device counts as soon as the server reports the stream,
//                                 before the device's new state) and the shared running rule
//                                 (ConsumerGraph.h) finds a real consumer of a source, or a real
//                                 producer for a sink, in the server's graph
//                                 (PulseConsumerGraphFor in PulseAudioDeviceMapping.h): recording
//                                 and playback streams of programs count; a corked stream, a level
//                                 meter (resample method "peaks"; on pipewire-pulse
//                                 "stream.monitor" or "resample.peaks" true) and a capture of a
//                                 sink's monitor do not; a filter (streams and devices sharing an
//                                 owner module or a "node.link-group": a virtual, remapped or
//                                 echo-cancelling source or sink, a loopback) counts only while
//                                 something real consumes what it offers, or feeds what it plays,
//                                 down a chain of any length; a sound card's sink at the end of a
//                                 loopback counts (the microphone is heard). So a volume meter or a
//                                 filter nobody records from does not make a microphone "in use".
//                                 A change between IDLE and SUSPENDED changes nothing here.
//   "hcn#" (consumers)            EncodeDeviceConsumers of who uses the device (PulseConsumersOf in
//                                 PulseAudioDeviceMapping.h): a source's recording streams, a
//                                 sink's playback streams and the captures of its monitor, paused
//                                 ones too; level meters and monitors by kind; a filter (module or
//                                 link group) with the programs at the ends of its chains as its
//                                 feeds. The PID is the client's "application.process.id", a claim
//                                 (isProcessIDVerified false): a plain PulseAudio server takes no
//                                 credentials a client can see. pipewire-pulse adds
//                                 "pipewire.sec.pid", but gives its own PID there to every client
//                                 it bridges, so it is used (verified) only when it is not that of
//                                 the bridge's own connection, as for a native PipeWire client
//                                 seen through it. A module's stream has no client and no PID.
//                                 Executable, process name and sandbox from /proc, read on
//                                 libpulse's thread once per process. The listeners run only when
//                                 the list really changes
//   "ssrc" (input scope)          sources with ports only: the active port's input source ID (IDs
//                                 count from 1 per device in the order ports are first seen)
//   "lscn" (input scope)          sources with ports only: a port's description, by input source ID
//                                 (a null string for an unknown ID)
//   "oink" (hog mode)             a device with an ALSA card ("alsa.card", else "api.alsa.card", of
//                                 the device, else of its card): the card's reservation on the
//                                 session bus (org.freedesktop.ReserveDevice1.Audio<card>, see
//                                 Reservation/internal/ReservationHogMode.h). Read: the owner's pid
//                                 as the bus tells it, -1 when nobody owns it or there is no
//                                 session bus (one log line says why), getpid() when we hold it.
//                                 Write: a toggle that gives the card back when we hold it, else
//                                 takes it, asking the owner (usually the sound server itself) to
//                                 release it; kAudioDevicePermissionsError ("!hog") when the owner
//                                 keeps it, kAudioHardwareNotRunningError ("stop") without a
//                                 session bus. A device without a card (null sinks, tunnels,
//                                 Bluetooth) has no reservation: kAudioHardwareUnknownPropertyError
//                                 ("who?") for reads and writes, as for a build without sd-bus, so
//                                 the read logs "Audio Error 2003332927: Unable to get hog mode PID
//                                 of device with ID <id>" and currentHogMode is NoProcess
//   any other property            kAudioHardwareUnknownPropertyError; a write to any property is
//                                 refused (kAudioHardwareIllegalOperationError when it exists)
//   an absent object              kAudioHardwareBadObjectError
//
// Global properties answer in any of the three scopes. A change runs the listeners registered for
// exactly the changed property's address: the global scope for global properties and for "dev#"
// on the system object, the input scope for "ssrc" and "lscn".
//
// Server faults: when the server goes away every device leaves the list (the "dev#" listeners
// fire), and the service reconnects with growing delays up to 2 s; the devices come back when it
// answers again. The service never starts a server itself.
//
// Thread-safety: every member may be called from any thread at the same time. Listener blocks run
// on their queues, never on the caller's or libpulse's thread. Reads and writes of "oink" are the
// only calls that wait: on the session bus, bounded by the reservation's call timeout, with no lock
// of the service held. The seam's answers, the listeners and exclusive access are the shared Linux
// audio service's (MappedAudioHardwareService.h); this class keeps the server connection.
//
// Logging: the log sink is never called on libpulse's thread nor with any lock held. The lines
// about start-up are written by create()'s caller before create() returns; later ones (the server
// lost, connected again) are written in order on a serial queue of the service's own.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "HarkwellFoundation/Platform/Linux/MappedAudioHardwareService.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioServerConnection.h"

namespace harkwell {

class PulseAudioHardwareService final : public MappedAudioHardwareService {
 public:
  struct Options {
    // A libpulse server string ("unix:/path/native", "tcp:host"); absent: libpulse's usual search
    // (PULSE_SERVER, client.conf, the user's own server).
    std::optional<std::string> server;
    // How long create() waits for the server's whole state.
    std::chrono::milliseconds startupTimeout{2000};
    // The sound cards' reservations; absent: one of the service's own on the session bus, which
    // connects when a hog-mode property is first used.
    std::shared_ptr<DeviceReservation> reservation;
  };

  // Connects and waits, at most `startupTimeout`, until the mirror holds the server's whole state,
  // so the first read already sees every device present. Without a server it returns at once with
  // no devices, after one log line, and the devices appear when a server starts. Null only when
  // libpulse cannot start its loop thread.
  static std::shared_ptr<PulseAudioHardwareService> create(Options options);
  static std::shared_ptr<PulseAudioHardwareService> create() { return create(Options()); }

  // Disconnects. No listener block is queued after this returns; blocks already queued are
  // dropped. Log lines already queued are still written, perhaps after this returns: it does not
  // wait for the log sink. Must not be the last reference released on libpulse's loop thread (it
  // never is: nothing there holds one).
  ~PulseAudioHardwareService() override;

 private:
  PulseAudioHardwareService() = default;

  // Last, so it is destroyed first: no state arrives while the mirror is torn down.
  std::unique_ptr<PulseAudioServerConnection> connection_;
};

}  // namespace harkwell
