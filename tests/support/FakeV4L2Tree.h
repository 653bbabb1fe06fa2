// A stand-in for a machine's V4L2 trees, built from real files in a fresh temporary folder: sysfs
// (class/video4linux entries linked to device folders with their bus links), /dev (regular files,
// or real character devices, stand in for nodes), the udev database, and a fake /proc. Removed with
// everything in it when the object goes.
//
// Used from the test's thread. Failures to build the tree fail the running test.
#pragma once

#include <optional>
#include <string>

namespace harkwell::testing {

struct FakeUsbCamera {
  std::string port = "1-2";  // the USB device's sysfs name
  std::string interface = "1.0";
  std::string vendor = "046d";
  std::string product = "0825";
  std::optional<std::string> serial = "A1B2C3";
  std::optional<std::string> productName = "Webcam C270";
};

struct FakeVideoNode {
  std::string entry = "video0";  // the sysfs entry (and /dev node) name
  // The raw bytes of the sysfs "name" file; absent: no such file.
  std::optional<std::string> nameFile = std::string("Webcam C270: Webcam C270\n");
  unsigned index = 0;
  unsigned minor = 0;
  // The parent device's folder relative to the sysfs root; empty: a virtual (loopback) device.
  std::string parent;
  bool withDevNode = true;
};

class FakeV4L2Tree {
 public:
  FakeV4L2Tree();
  ~FakeV4L2Tree();
  FakeV4L2Tree(const FakeV4L2Tree&) = delete;
  FakeV4L2Tree& operator=(const FakeV4L2Tree&) = delete;

  const std::string& root() const { return root_; }
  std::string sysfsRoot() const { return root_ + "/sys"; }
  std::string devRoot() const { return root_ + "/dev"; }
  std::string udevDataRoot() const { return root_ + "/udev"; }
  std::string procRoot() const { return root_ + "/proc"; }

  // Device folders with the links the reader follows; each returns the folder relative to sysfs.
  std::string addUsbInterface(const FakeUsbCamera& camera);
  // A UVC video streaming interface of the camera's USB device (`interface` like "1.1"), resting
  // in alternate setting 0: without endpoints when isochronous, with its bulk endpoint otherwise.
  // Returns its folder relative to sysfs.
  std::string addUvcStreamingInterface(const FakeUsbCamera& camera, const std::string& interface,
                                       bool isochronous);
  // What the driver writes when a stream starts or stops (`folder` relative to sysfs).
  void setAlternateSetting(const std::string& interfaceFolder, unsigned setting,
                           unsigned endpoints);
  // The USB device's power/runtime_status ("active", "suspended").
  void setRuntimeStatus(const FakeUsbCamera& camera, const std::string& status);
  std::string addPciDevice(const std::string& address, const std::string& vendor,
                           const std::string& device);
  std::string addPlatformDevice(const std::string& name, const std::string& driver);

  // The node's sysfs folder, its class entry and (unless told not to) its /dev node.
  void addNode(const FakeVideoNode& node);
  // A regular file standing in for the node under /dev.
  void createDevNode(const std::string& entry);
  // A character device (the memory device "null", 1:3) standing in for the node, so the service
  // really opens it; needs CAP_MKNOD.
  bool createCharDevNode(const std::string& entry);
  // A named pipe standing in for the node: a media server's pipe module can hold it open the way
  // the server holds a camera's node (a server cannot open a regular file as a camera).
  bool createFifoDevNode(const std::string& entry);
  void removeDevNode(const std::string& entry);
  // The canonical path of a /dev node, as /proc shows it.
  std::string devNodePath(const std::string& entry) const;

  void writeUdevRecord(unsigned minor, const std::string& text);
  // Any file, relative to the root, with its folders.
  void writeFile(const std::string& relativePath, const std::string& bytes);
  void makeSymlink(const std::string& target, const std::string& relativeLinkPath);
  void makeFolder(const std::string& relativePath);

 private:
  void linkSubsystem(const std::string& folder, const std::string& bus);

  std::string root_;
};

}  // namespace harkwell::testing
