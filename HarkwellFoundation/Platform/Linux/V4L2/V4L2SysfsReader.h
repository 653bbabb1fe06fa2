// Turns a V4L2 tree (sysfs, /dev, the udev database) into camera descriptions. It reads files and
// asks each node for its capabilities through the given probe; it keeps no state, logs nothing and
// reports what it had to skip or patch as diagnostics, one line each, for its caller to log.
//
// Called by the V4L2 service's background thread (and by tests on theirs); any thread may call
// it. See V4L2HardwareService.h for the mapping from nodes to devices that it implements.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2NodeProbe.h"

namespace harkwell::v4l2 {

// Where the three trees are. Paths need not be canonical. An empty udev folder means "no udev".
struct TreeLocation {
  std::string sysfsRoot = "/sys";
  std::string devRoot = "/dev";
  std::string udevDataRoot = "/run/udev/data";
};

// One physical camera (or loopback device) and everything the service publishes about it.
struct CameraDescription {
  std::string identity;  // persistent identity: the key of its object ID; unique in one reading
  std::string name;      // bytes as the tree has them; never empty
  std::string uid;
  std::optional<std::string> modelUID;  // absent when the tree says nothing about the model
  std::uint32_t transportType = 0;      // a video transport code ("usb ", "bltn", ...)
  std::uint32_t inputStreamCount = 0;   // capture nodes
  std::uint32_t outputStreamCount = 0;  // output-capable nodes
  // The canonical paths of all its nodes (capture, output and metadata), in node-number order.
  std::vector<std::string> nodePaths;
  // Nodes that said they deliver frames through read() and write() only: their frames never show
  // as mapped buffers.
  std::vector<std::string> readWriteOnlyNodePaths;
  // For a USB camera, the canonical sysfs folders of its interface (its nodes' parent) and of the
  // USB device above it.
  std::optional<std::string> usbInterfacePath;
  std::optional<std::string> usbDevicePath;
};

struct TreeReading {
  // Cameras ordered by their lowest node number. Groups without a capture or output node
  // (metadata only, codecs) are not cameras and are left out.
  std::vector<CameraDescription> cameras;
  // What was skipped or patched, one printable line each ("V4L2: ...").
  std::vector<std::string> diagnostics;
  // The /dev names of every video entry in sysfs, with or without a node, and their udev database
  // entry names: the changes worth a re-read.
  std::vector<std::string> deviceNodeNames;
  std::vector<std::string> udevRecordNames;
  // The canonical path of every node the probe was asked about, cameras' or not: the answers
  // worth remembering until the next reading.
  std::vector<std::string> probedNodePaths;
};

TreeReading ReadV4L2Tree(const TreeLocation& location, const NodeProbe& probe);

}  // namespace harkwell::v4l2
