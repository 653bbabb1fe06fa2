#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2SysfsReader.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <map>
#include <memory>
#include <set>

#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2FileAccess.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2LogText.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2UdevRecord.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"

namespace harkwell::v4l2 {
namespace {

// A sysfs folder chain is a dozen levels deep; a deeper one is a broken tree.
constexpr int kLongestAncestry = 64;

// Everything one video entry in sysfs says, before nodes are grouped into cameras.
struct NodeFacts {
  std::string entryName;  // "video0"
  std::string sysfsPath;  // canonical
  std::string devName;    // its name under /dev
  std::string nodePath;   // canonical
  std::optional<std::string> sysfsName;
  int nameError = 0;
  std::uint64_t index = 0;
  std::optional<std::string> parentPath;  // canonical; absent for a device without a parent
  bool hasParentLink = false;             // false: a virtual device such as a loopback
  std::optional<UdevRecord> udev;
  std::optional<NodeCapabilities> capabilities;
  bool captures = false;
  bool outputs = false;
};

// What the chain of folders above a node's parent says about its bus.
struct BusFacts {
  std::optional<std::uint32_t> transportType;
  std::optional<std::string> usbDevicePath;
  std::optional<std::string> pciDevicePath;
};

struct FolderCloser {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

std::optional<std::uint64_t> ParseDecimal(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
    return std::nullopt;
  }
  return value;
}

std::optional<std::uint64_t> NodeNumber(std::string_view entryName) {
  return ParseDecimal(entryName.substr(std::string_view("video").size()));
}

// Node-number order ("video2" before "video10"); names without a number last, by name.
bool EntryComesFirst(const std::string& a, const std::string& b) {
  const auto numberA = NodeNumber(a);
  const auto numberB = NodeNumber(b);
  if (numberA && numberB && *numberA != *numberB) return *numberA < *numberB;
  if (numberA.has_value() != numberB.has_value()) return numberA.has_value();
  return a < b;
}

bool Exists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

// A sysfs attribute with surrounding whitespace removed; nothing when missing or empty.
std::optional<std::string> ReadAttribute(const std::string& path) {
  FileText file = ReadSmallFile(path, 4096);
  if (!file.text) return std::nullopt;
  const std::string_view trimmed = TrimWhitespace(*file.text);
  if (trimmed.empty()) return std::nullopt;
  return std::string(trimmed);
}

// The /dev name a sysfs entry announces in its uevent file, when it is a plain file name.
std::optional<std::string> AnnouncedDevName(const std::string& sysfsPath) {
  FileText uevent = ReadSmallFile(sysfsPath + "/uevent", 4096);
  if (!uevent.text) return std::nullopt;
  std::string_view text = *uevent.text;
  constexpr std::string_view kKey = "DEVNAME=";
  while (!text.empty()) {
    const auto end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (!line.starts_with(kKey)) continue;
    const std::string_view name = line.substr(kKey.size());
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos) {
      return std::nullopt;
    }
    return std::string(name);
  }
  return std::nullopt;
}

void DecideRoles(NodeFacts& node) {
  if (node.capabilities) {
    node.captures = CapabilitiesCaptureVideo(node.capabilities->deviceCaps);
    node.outputs = CapabilitiesOutputVideo(node.capabilities->deviceCaps);
  } else if (auto listed = node.udev ? node.udev->property("ID_V4L_CAPABILITIES") : std::nullopt) {
    node.captures = listed->find(":capture:") != std::string::npos;
    node.outputs = listed->find(":video_output:") != std::string::npos;
  } else {
    // Nothing answered: a loopback device is both; otherwise a driver's first node is its
    // capture node and later ones carry metadata (as a UVC camera's do).
    node.captures = !node.hasParentLink || node.index == 0;
    node.outputs = !node.hasParentLink;
  }
  // A loopback device flips between output and capture as its writer comes and goes; it is both.
  if (!node.hasParentLink && (node.captures || node.outputs)) {
    node.captures = node.outputs = true;
  }
}

class TreeReader {
 public:
  TreeReader(const TreeLocation& location, const NodeProbe& probe)
      : location_(location), probe_(probe) {
    FileText root = ResolvePath(location.sysfsRoot);
    sysfsRoot_ = root.text ? *root.text : location.sysfsRoot;
  }

  TreeReading read() {
    // Entries are read in node-number order, so groups come out ordered by their first node.
    std::vector<NodeFacts> nodes = readNodes();

    std::vector<std::vector<const NodeFacts*>> groups;
    std::map<std::string, std::size_t> groupOfKey;
    for (const NodeFacts& node : nodes) {
      const std::string& key = node.parentPath ? *node.parentPath : node.sysfsPath;
      auto [found, added] = groupOfKey.try_emplace(key, groups.size());
      if (added) groups.emplace_back();
      groups[found->second].push_back(&node);
    }

    std::set<std::string> identities;
    for (const auto& group : groups) {
      auto camera = describeCamera(group);
      if (!camera) continue;
      if (!identities.insert(camera->identity).second) {
        // Two cameras that claim one identity (a broken tree) still get an ID each.
        camera->identity += "\n" + group.front()->sysfsPath;
        identities.insert(camera->identity);
      }
      reading_.cameras.push_back(std::move(*camera));
    }
    return std::move(reading_);
  }

 private:
  void diagnose(std::string line) { reading_.diagnostics.push_back("V4L2: " + std::move(line)); }

  std::vector<std::string> listEntries() {
    const std::string classPath = location_.sysfsRoot + "/class/video4linux";
    std::unique_ptr<DIR, FolderCloser> folder(::opendir(classPath.c_str()));
    std::vector<std::string> entries;
    if (!folder) {
      // A machine without the video4linux class simply has no cameras yet.
      if (errno != ENOENT) {
        diagnose("cannot list " + QuotedForLog(classPath) + ": " + ErrorText(errno));
      }
      return entries;
    }
    while (const dirent* entry = ::readdir(folder.get())) {
      const std::string_view name = entry->d_name;
      // Radio, VBI, touch and sub-device nodes are not cameras.
      if (name.starts_with("video")) entries.emplace_back(name);
    }
    // Node-number order, so readings and their diagnostics come out the same every time.
    std::sort(entries.begin(), entries.end(), EntryComesFirst);
    return entries;
  }

  std::vector<NodeFacts> readNodes() {
    std::vector<NodeFacts> nodes;
    for (const std::string& entry : listEntries()) {
      if (auto node = readNode(entry)) nodes.push_back(std::move(*node));
    }
    return nodes;
  }

  std::optional<NodeFacts> readNode(const std::string& entry) {
    NodeFacts node;
    node.entryName = entry;
    const std::string entryPath = location_.sysfsRoot + "/class/video4linux/" + entry;
    FileText resolved = ResolvePath(entryPath);
    if (!resolved.text) {
      // An entry that vanished while being listed went away with its device; nothing to say.
      if (resolved.error != ENOENT) {
        diagnose("skipping " + QuotedForLog(entry) + ": cannot resolve " + QuotedForLog(entryPath) +
                 ": " + ErrorText(resolved.error));
      }
      return std::nullopt;
    }
    node.sysfsPath = std::move(*resolved.text);

    node.devName = AnnouncedDevName(node.sysfsPath).value_or(entry);
    reading_.deviceNodeNames.push_back(node.devName);
    std::optional<std::string> recordName;
    if (auto number = ReadAttribute(node.sysfsPath + "/dev")) {
      recordName = UdevRecordName(*number);
      if (recordName) reading_.udevRecordNames.push_back(*recordName);
    }

    const std::string nodePath = location_.devRoot + "/" + node.devName;
    FileText canonicalNode = ResolvePath(nodePath);
    if (!canonicalNode.text) {
      // No node yet (or any more): the device is not there for its users either.
      if (canonicalNode.error != ENOENT) {
        diagnose("skipping " + QuotedForLog(entry) + ": cannot resolve " + QuotedForLog(nodePath) +
                 ": " + ErrorText(canonicalNode.error));
      }
      return std::nullopt;
    }
    node.nodePath = std::move(*canonicalNode.text);
    struct stat status {};
    if (::stat(node.nodePath.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      diagnose("skipping " + QuotedForLog(entry) + ": " + QuotedForLog(nodePath) +
               " is a folder, not a device node");
      return std::nullopt;
    }

    FileText name = ReadSmallFile(node.sysfsPath + "/name", 4096);
    if (name.text) {
      if (name.text->ends_with('\n')) name.text->pop_back();
      if (!name.text->empty()) node.sysfsName = std::move(name.text);
    } else {
      node.nameError = name.error;
    }
    if (auto index = ReadAttribute(node.sysfsPath + "/index")) {
      node.index = ParseDecimal(*index).value_or(0);
    }

    const std::string parentLink = node.sysfsPath + "/device";
    FileText parent = ResolvePath(parentLink);
    if (parent.text) {
      node.parentPath = std::move(parent.text);
      node.hasParentLink = true;
    } else if (parent.error != ENOENT) {
      node.hasParentLink = true;
      diagnose(QuotedForLog(entry) + ": cannot resolve its parent device " +
               QuotedForLog(parentLink) + ": " + ErrorText(parent.error) +
               "; treating the node as a device of its own");
    }

    if (recordName) node.udev = ReadUdevRecord(location_.udevDataRoot, *recordName);
    NodeProbeResult probed = probe_ ? probe_(node.nodePath) : NodeProbeResult{};
    reading_.probedNodePaths.push_back(node.nodePath);
    node.capabilities = std::move(probed.capabilities);
    DecideRoles(node);
    return node;
  }

  BusFacts busFacts(const std::optional<std::string>& parentPath) {
    BusFacts facts;
    if (!parentPath) return facts;
    std::string folder = *parentPath;
    const std::string rootPrefix = sysfsRoot_ == "/" ? "/" : sysfsRoot_ + "/";
    for (int level = 0; level < kLongestAncestry && folder.starts_with(rootPrefix); ++level) {
      FileText subsystemLink = ReadLinkText(folder + "/subsystem");
      const std::string_view subsystem =
          subsystemLink.text ? LastPathComponent(*subsystemLink.text) : std::string_view();
      if (subsystem == "usb") {
        if (!facts.transportType) facts.transportType = kVideoTransportTypeUSB;
        if (!facts.usbDevicePath && Exists(folder + "/idVendor")) facts.usbDevicePath = folder;
      } else if (subsystem == "pci") {
        if (!facts.transportType) facts.transportType = kVideoTransportTypePCI;
        if (!facts.pciDevicePath) facts.pciDevicePath = folder;
      } else if (subsystem == "platform") {
        if (!facts.transportType) facts.transportType = kVideoTransportTypeBuiltIn;
      }
      if (facts.usbDevicePath || facts.pciDevicePath) break;
      folder = ParentPath(folder);
    }
    return facts;
  }

  std::string nameOf(const NodeFacts& node, const BusFacts& bus) {
    if (node.sysfsName) return *node.sysfsName;
    std::string fallback;
    if (node.capabilities && !node.capabilities->card.empty()) {
      fallback = node.capabilities->card;
    } else if (auto product = node.udev ? node.udev->property("ID_V4L_PRODUCT") : std::nullopt;
               product && !product->empty()) {
      fallback = *product;
    } else if (auto usbProduct = bus.usbDevicePath ? ReadAttribute(*bus.usbDevicePath + "/product")
                                                   : std::nullopt) {
      fallback = *usbProduct;
    } else {
      fallback = node.entryName;
    }
    const std::string reason = node.nameError != 0 ? ErrorText(node.nameError) : "it is empty";
    diagnose(QuotedForLog(node.entryName) + " has no name in sysfs (" + reason + "); calling it " +
             QuotedForLog(fallback));
    return fallback;
  }

  std::string relativeToSysfs(const std::string& path) const {
    if (path.starts_with(sysfsRoot_ + "/")) return path.substr(sysfsRoot_.size() + 1);
    return path;
  }

  std::optional<CameraDescription> describeCamera(const std::vector<const NodeFacts*>& group) {
    CameraDescription camera;
    const NodeFacts* named = nullptr;
    for (const NodeFacts* node : group) {
      if (node->captures) ++camera.inputStreamCount;
      if (node->outputs) ++camera.outputStreamCount;
      if (!named && node->captures) named = node;
      camera.nodePaths.push_back(node->nodePath);
      if (node->capabilities && (node->captures || node->outputs) &&
          CapabilitiesReadWriteOnly(node->capabilities->deviceCaps)) {
        camera.readWriteOnlyNodePaths.push_back(node->nodePath);
      }
    }
    if (camera.inputStreamCount == 0 && camera.outputStreamCount == 0) return std::nullopt;
    if (!named) {
      named =
          *std::find_if(group.begin(), group.end(), [](const NodeFacts* n) { return n->outputs; });
    }

    const NodeFacts& first = *group.front();
    const BusFacts bus = busFacts(first.parentPath);
    camera.name = nameOf(*named, bus);

    if (bus.transportType) {
      camera.transportType = *bus.transportType;
    } else if (!first.hasParentLink ||
               first.parentPath.value_or(first.sysfsPath).find("/devices/virtual/") !=
                   std::string::npos) {
      camera.transportType = kVideoTransportTypeVirtual;
    } else {
      camera.transportType = kVideoTransportTypeOther;
    }

    if (bus.usbDevicePath) {
      const std::string vendor = ReadAttribute(*bus.usbDevicePath + "/idVendor").value_or("");
      const std::string product = ReadAttribute(*bus.usbDevicePath + "/idProduct").value_or("");
      const std::string serial = ReadAttribute(*bus.usbDevicePath + "/serial").value_or("");
      camera.uid = "usb:" + vendor + ":" + product + ":" + serial + "@" +
                   std::string(LastPathComponent(*first.parentPath));
      camera.modelUID = "usb:" + vendor + ":" + product;
      camera.usbDevicePath = bus.usbDevicePath;
      if (*first.parentPath != *bus.usbDevicePath) camera.usbInterfacePath = first.parentPath;
    } else {
      camera.uid = identityWithoutUsb(group);
      if (bus.pciDevicePath) {
        auto hex = [](std::string text) { return text.starts_with("0x") ? text.substr(2) : text; };
        camera.modelUID = "pci:" + hex(ReadAttribute(*bus.pciDevicePath + "/vendor").value_or("")) +
                          ":" + hex(ReadAttribute(*bus.pciDevicePath + "/device").value_or(""));
      } else if (first.parentPath) {
        FileText driver = ReadLinkText(*first.parentPath + "/driver");
        if (driver.text) camera.modelUID = "driver:" + std::string(LastPathComponent(*driver.text));
      }
    }
    camera.identity = camera.uid;
    return camera;
  }

  // The persistent identity of a camera that is not on USB: udev's by-id link, the parent
  // device's place in sysfs, or for a device without a parent its node name.
  std::string identityWithoutUsb(const std::vector<const NodeFacts*>& group) const {
    constexpr std::string_view kById = "v4l/by-id/";
    for (const NodeFacts* node : group) {
      if (!node->udev) continue;
      for (const std::string& link : node->udev->links) {
        if (!link.starts_with(kById)) continue;
        std::string stem = link.substr(kById.size());
        // The links of one camera differ only in their "-video-indexN" ending.
        const auto ending = stem.rfind("-video-index");
        if (ending != std::string::npos) stem.erase(ending);
        return "by-id:" + stem;
      }
    }
    const NodeFacts& first = *group.front();
    if (first.parentPath) return "sysfs:" + relativeToSysfs(*first.parentPath);
    if (first.hasParentLink) return "sysfs:" + relativeToSysfs(first.sysfsPath);
    return "virtual:" + first.devName;
  }

  const TreeLocation& location_;
  const NodeProbe& probe_;
  std::string sysfsRoot_;
  TreeReading reading_;
};

}  // namespace

TreeReading ReadV4L2Tree(const TreeLocation& location, const NodeProbe& probe) {
  return TreeReader(location, probe).read();
}

}  // namespace harkwell::v4l2
