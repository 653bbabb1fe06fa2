// The audio hardware service on Linux desktops that run PipeWire: the daemon's graph, reached
// through libpipewire, shown as the audio seam's objects and properties.
//
// The service keeps a mirror of the daemon's nodes, devices and links, kept current on
// libpipewire's loop thread from the registry and each object's info and params. Reads answer from
// the mirror under a short lock and never wait on the daemon. A change updates the mirror first and
// then queues each listener block of a property whose value changed on the listener's own queue;
// a change that leaves every value as it was queues nothing.
//
// How the graph appears through the seam:
//
//   seam                          PipeWire
//   ----------------------------  ----------------------------------------------------------------
//   device                        one per node of media class Audio/Source, Audio/Sink, their
//                                 /Virtual forms, and Audio/Duplex; streams (Stream/...), drivers,
//                                 MIDI and video nodes are not devices, and PipeWire has no monitor
//                                 nodes (a sink's monitor is its ports), so monitors are never
//                                 devices. A node without node.name is left out.
//   device ID                     derived from the UID by the Linux rule (StableDeviceID.h): an
//   even
//                                 number from 65536 to 131070, the same in every process and after
//                                 the daemon restarts; two devices whose UIDs share a slot are
//                                 settled in UID order (the later takes the next free slot)
//   "dev#" (system object 1)      the present devices' IDs, ascending
//   "lnam"                        node.description, else node.nick, else node.name
//   "uid "                        node.name (pipewire-pulse shows the same name, so both services
//                                 give a device the same UID and ID)
//   "muid"                        "vendor:product" from device.vendor.id and device.product.id of
//   the
//                                 node, else of its device (the node's device.id); a null string
//                                 when not known
//   "tran"                        from device.bus, device.api, device.form_factor and device.class
//                                 of the node, else of its device, first match wins:
//                                 bus bluetooth or api bluez5 -> "blue"; bus usb -> "usb ";
//                                 bus firewire/ieee1394 -> "1394"; form factor internal -> "bltn";
//                                 bus pci -> "pci "; class abstract or filter, node.virtual, a
//                                 /Virtual media class, or neither bus nor device -> "virt";
//                                 otherwise 0 (unknown)
//   "stm#"                        one input stream for a source, one output stream for a sink, one
//                                 each for a duplex node (4 bytes each; the stream's ID is the
//                                 device's ID + 1 and is not an object). Channels and ports are not
//                                 streams, and ports come after their node, so a count from them
//                                 would be 0 for a moment after the node appears
//   "gone" (running somewhere)    the Linux rule (ConsumerGraph.h) over the graph: a source runs
//                                 while a real consumer takes its data, following the links; a sink
//                                 while a real producer plays to it. A stream counts while its node
//                                 is running; a stream with stream.monitor or resample.peaks (a
//                                 level meter), one with stream.capture.sink or linked from a sink
//                                 (a monitor capture), and one that is paused, idle or suspended
//                                 take nothing. Nodes sharing a node.link-group are the halves of a
//                                 filter or loopback: what the consuming half takes, the producing
//                                 half gives, so a filter counts only while something real takes
//                                 its output. Links in error or unlinked are not flows.
//   "hcn#" (consumers)            EncodeDeviceConsumers of who uses the device
//                                 (PipeWireConsumersOf in PipeWireDeviceMapping.h): the stream
//                                 nodes linked from a source node, linked into a sink node, and
//                                 capturing a sink, paused or not; meters (stream.monitor,
//                                 resample.peaks) and monitors by kind; a node.link-group member
//                                 (a filter or loopback) with the programs at the ends of its
//                                 chains, through any number of filters, as its feeds. The PID is
//                                 the node's client's "pipewire.sec.pid", taken by the daemon from
//                                 the socket (verified), except for a PulseAudio client bridged by
//                                 pipewire-pulse, whose connection is pipewire-pulse's own: then
//                                 its "application.process.id", a claim. Executable, process name
//                                 and sandbox from /proc, read on libpipewire's thread once per
//                                 process. The listeners run only when the list really changes
//   "ssrc" (input scope)          sources whose device has input routes for the node's
//                                 card.profile.device: the chosen route's input source ID (IDs
//                                 count from 1 per device in the order routes are first seen); a
//                                 change of the device's Route param is an input source change
//   "lscn" (input scope)          such sources only: a route's description, by input source ID (a
//                                 null string for an unknown ID)
//   "oink" (hog mode)             a node with an ALSA card ("api.alsa.card", else "alsa.card", of
//                                 the node, else of its device): the card's reservation on the
//                                 session bus, read and toggled as the PulseAudio service does
//                                 (see its header); a node without a card (virtual sinks,
//                                 network and Bluetooth nodes) answers
//                                 kAudioHardwareUnknownPropertyError
//   any other property            kAudioHardwareUnknownPropertyError; a write to any property is
//                                 refused (kAudioHardwareIllegalOperationError when it exists)
//   an absent object              kAudioHardwareBadObjectError
//
// Global properties answer in any of the three scopes. A change runs the listeners registered for
// exactly the changed property's address: the global scope for global properties and for "dev#"
// on the system object, the input scope for "ssrc" and "lscn".
//
// Daemon faults: when the daemon goes away every device leaves the list (the "dev#" listeners
// fire), and the service reconnects with growing delays up to 2 s; the devices come back with
// their old IDs when it answers again. The service never starts a daemon itself.
//
// Thread-safety: every member may be called from any thread at the same time. Listener blocks run
// on their queues, never on the caller's or libpipewire's thread.
//
// Logging: the log sink is never called on libpipewire's thread nor with any lock held. The lines
// about start-up are written by create()'s caller before create() returns; later ones (the daemon
// lost, connected again) are written in order on a serial queue of the service's own.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "HarkwellFoundation/Platform/Linux/MappedAudioHardwareService.h"
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireGraphConnection.h"

namespace harkwell {

class PipeWireHardwareService final : public MappedAudioHardwareService {
 public:
  struct Options {
    // The daemon's socket, a name in the runtime folder or a path; absent: libpipewire's usual
    // choice (PIPEWIRE_REMOTE, else "pipewire-0").
    std::optional<std::string> remote;
    // How long create() waits for the daemon's whole graph.
    std::chrono::milliseconds startupTimeout{2000};
    // The sound cards' reservations; absent: one of the service's own on the session bus, which
    // connects when a hog-mode property is first used.
    std::shared_ptr<DeviceReservation> reservation;
  };

  // Connects and waits, at most `startupTimeout`, until the mirror holds the daemon's whole graph,
  // so the first read already sees every device present. Without a daemon it returns at once with
  // no devices, after one log line, and the devices appear when a daemon starts. Null only when
  // libpipewire cannot start its loop thread.
  static std::shared_ptr<PipeWireHardwareService> create(Options options);
  static std::shared_ptr<PipeWireHardwareService> create() { return create(Options()); }

  // Disconnects. No listener block is queued after this returns; blocks already queued are
  // dropped. Log lines already queued are still written, perhaps after this returns. Must not be
  // the last reference released on libpipewire's loop thread (it never is: nothing there holds
  // one).
  ~PipeWireHardwareService() override;

 private:
  PipeWireHardwareService() = default;

  // Last, so it is destroyed first: no graph arrives while the mirror is torn down.
  std::unique_ptr<PipeWireGraphConnection> connection_;
};

}  // namespace harkwell
