#include "tests/support/FakeV4L2Tree.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace harkwell::testing {
namespace fs = std::filesystem;

namespace {

constexpr const char* kHostController = "devices/pci0000:00/0000:00:14.0";

}  // namespace

FakeV4L2Tree::FakeV4L2Tree() {
  const char* tmp = ::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/harkwell-v4l2-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
    return;
  }
  // Canonical from the start, so node paths compare equal to what /proc shows.
  root_ = fs::canonical(pattern).string();
  for (const char* folder :
       {"sys/class/video4linux", "sys/bus/usb", "sys/bus/pci", "sys/bus/platform",
        "sys/devices/virtual/video4linux", "dev", "udev", "proc"}) {
    fs::create_directories(root_ + "/" + folder);
  }
}

FakeV4L2Tree::~FakeV4L2Tree() {
  if (root_.empty()) return;
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

void FakeV4L2Tree::makeFolder(const std::string& relativePath) {
  fs::create_directories(root_ + "/" + relativePath);
}

void FakeV4L2Tree::writeFile(const std::string& relativePath, const std::string& bytes) {
  const fs::path path = root_ + "/" + relativePath;
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) ADD_FAILURE() << "cannot write " << path;
}

void FakeV4L2Tree::makeSymlink(const std::string& target, const std::string& relativeLinkPath) {
  const fs::path link = root_ + "/" + relativeLinkPath;
  fs::create_directories(link.parent_path());
  fs::create_symlink(target, link);
}

void FakeV4L2Tree::linkSubsystem(const std::string& folder, const std::string& bus) {
  const std::string link = folder + "/subsystem";
  if (!fs::is_symlink(root_ + "/" + link)) makeSymlink(root_ + "/sys/bus/" + bus, link);
}

std::string FakeV4L2Tree::addPciDevice(const std::string& address, const std::string& vendor,
                                       const std::string& device) {
  const std::string folder = "devices/pci0000:00/" + address;
  writeFile("sys/" + folder + "/vendor", vendor + "\n");
  writeFile("sys/" + folder + "/device", device + "\n");
  linkSubsystem("sys/" + folder, "pci");
  return folder;
}

std::string FakeV4L2Tree::addPlatformDevice(const std::string& name, const std::string& driver) {
  const std::string folder = std::string("devices/platform/") + name;
  makeFolder("sys/" + folder);
  makeFolder("sys/bus/platform/drivers/" + driver);
  linkSubsystem("sys/" + folder, "platform");
  if (!fs::is_symlink(root_ + "/sys/" + folder + "/driver")) {
    makeSymlink(root_ + "/sys/bus/platform/drivers/" + driver, "sys/" + folder + "/driver");
  }
  return folder;
}

std::string FakeV4L2Tree::addUsbInterface(const FakeUsbCamera& camera) {
  if (!fs::exists(root_ + "/sys/" + kHostController)) {
    addPciDevice("0000:00:14.0", "0x8086", "0xa36d");
    const std::string hub = std::string(kHostController) + "/usb1";
    writeFile("sys/" + hub + "/idVendor", "1d6b\n");
    writeFile("sys/" + hub + "/idProduct", "0002\n");
    linkSubsystem("sys/" + hub, "usb");
  }
  const std::string device = std::string(kHostController) + "/usb1/" + camera.port;
  writeFile("sys/" + device + "/idVendor", camera.vendor + "\n");
  writeFile("sys/" + device + "/idProduct", camera.product + "\n");
  if (camera.serial) writeFile("sys/" + device + "/serial", *camera.serial + "\n");
  if (camera.productName) writeFile("sys/" + device + "/product", *camera.productName + "\n");
  linkSubsystem("sys/" + device, "usb");
  const std::string interface = device + "/" + camera.port + ":" + camera.interface;
  makeFolder("sys/" + interface);
  linkSubsystem("sys/" + interface, "usb");
  return interface;
}

std::string FakeV4L2Tree::addUvcStreamingInterface(const FakeUsbCamera& camera,
                                                   const std::string& interface, bool isochronous) {
  const std::string folder =
      std::string(kHostController) + "/usb1/" + camera.port + "/" + camera.port + ":" + interface;
  writeFile("sys/" + folder + "/bInterfaceClass", "0e\n");
  writeFile("sys/" + folder + "/bInterfaceSubClass", "02\n");
  linkSubsystem("sys/" + folder, "usb");
  setAlternateSetting(folder, 0, isochronous ? 0 : 1);
  return folder;
}

void FakeV4L2Tree::setAlternateSetting(const std::string& interfaceFolder, unsigned setting,
                                       unsigned endpoints) {
  // The kernel's own formats: the setting right-aligned in two places, the count in hex.
  char text[8];
  std::snprintf(text, sizeof text, "%2u\n", setting);
  writeFile("sys/" + interfaceFolder + "/bAlternateSetting", text);
  std::snprintf(text, sizeof text, "%02x\n", endpoints);
  writeFile("sys/" + interfaceFolder + "/bNumEndpoints", text);
}

void FakeV4L2Tree::setRuntimeStatus(const FakeUsbCamera& camera, const std::string& status) {
  writeFile(
      "sys/" + std::string(kHostController) + "/usb1/" + camera.port + "/power/runtime_status",
      status + "\n");
}

void FakeV4L2Tree::addNode(const FakeVideoNode& node) {
  const std::string parent = node.parent.empty() ? "devices/virtual" : node.parent;
  const std::string folder = "sys/" + parent + "/video4linux/" + node.entry;
  makeFolder(folder);
  if (node.nameFile) writeFile(folder + "/name", *node.nameFile);
  writeFile(folder + "/index", std::to_string(node.index) + "\n");
  writeFile(folder + "/dev", "81:" + std::to_string(node.minor) + "\n");
  writeFile(folder + "/uevent",
            "MAJOR=81\nMINOR=" + std::to_string(node.minor) + "\nDEVNAME=" + node.entry + "\n");
  if (!node.parent.empty()) makeSymlink(root_ + "/sys/" + node.parent, folder + "/device");
  makeSymlink(root_ + "/" + folder, "sys/class/video4linux/" + node.entry);
  if (node.withDevNode) createDevNode(node.entry);
}

void FakeV4L2Tree::createDevNode(const std::string& entry) {
  writeFile("dev/" + entry, "");
}

bool FakeV4L2Tree::createCharDevNode(const std::string& entry) {
  const std::string path = devRoot() + "/" + entry;
  return ::mknod(path.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;
}

bool FakeV4L2Tree::createFifoDevNode(const std::string& entry) {
  const std::string path = devRoot() + "/" + entry;
  return ::mkfifo(path.c_str(), 0600) == 0;
}

void FakeV4L2Tree::removeDevNode(const std::string& entry) {
  fs::remove(devRoot() + "/" + entry);
}

std::string FakeV4L2Tree::devNodePath(const std::string& entry) const {
  return devRoot() + "/" + entry;
}

void FakeV4L2Tree::writeUdevRecord(unsigned minor, const std::string& text) {
  writeFile("udev/c81:" + std::to_string(minor), text);
}

}  // namespace harkwell::testing
