// What a USB camera's sysfs folders say about its stream, without opening anything:
//
//   Alternate setting  A UVC camera with isochronous streaming keeps its video streaming
//                      interfaces in alternate setting 0 (no bandwidth, no endpoints) until a
//                      stream starts, and the driver selects a setting with bandwidth for as long
//                      as frames flow, however the program takes them (memory-mapped, DMABUF or
//                      user-pointer buffers, read()), whichever user runs it. sysfs shows the
//                      current setting as "bAlternateSetting" of the interface. A camera that
//                      streams over a bulk endpoint has that endpoint in setting 0 and never
//                      leaves it, so the setting says nothing about bulk cameras.
//   Runtime power      "power/runtime_status" of the USB device: "suspended" means no stream can be
//                      running. "active" says little: the driver may keep a camera awake merely
//                      because a node is open, and a device whose autosuspend is off is always
//                      active.
//
// The streaming interfaces of a camera are those that follow its control interface (the parent of
// its nodes) in interface-number order, up to the next interface of another kind: a UVC function
// is one contiguous group of interfaces, so a second camera on the same USB device (an infrared
// one, say) is kept apart. sysfs attributes change without any inotify event; the caller looks
// again when it has reason to.
//
// Stateless; any thread may call.
#pragma once

#include <optional>
#include <string>

namespace harkwell::v4l2 {

struct UsbStreamingState {
  // True while an isochronous streaming interface is in a setting with bandwidth, false while all
  // of them rest in setting 0; absent when the camera has no isochronous UVC streaming interface
  // (a bulk camera, or a camera that is not UVC).
  std::optional<bool> isochronousStreaming;
  // The USB device reports itself runtime-suspended.
  bool suspended = false;
};

// `controlInterfacePath`: the canonical sysfs folder of the camera's USB interface (its nodes'
// parent); `usbDevicePath`: the canonical folder of the USB device above it.
UsbStreamingState ReadUsbStreamingState(const std::string& controlInterfacePath,
                                        const std::string& usbDevicePath);

}  // namespace harkwell::v4l2
