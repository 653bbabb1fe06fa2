// The V4L2 tree reader on arbitrary trees. The input chooses the video nodes of a small sysfs tree
// in a temporary folder (their entry names, "name", "index", "dev" and "uevent" files, byte for
// byte), which parent each hangs under (a USB device with any vendor, product and serial files, a
// PCI device, or none), which have a /dev node and a udev database entry (any text), and what each
// node answers when probed. The reader must never crash, and what it returns must keep its
// promises: every camera has a non-empty name and an identity no other camera has, at least one
// capture or output node, node paths for every node it names, and cameras come in the order of
// their lowest node number.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2SysfsReader.h"

namespace {

namespace fs = std::filesystem;

void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "broken promise: %s\n", what);
  std::abort();
}

void Write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

void Link(const fs::path& target, const fs::path& link) {
  fs::create_directories(link.parent_path());
  std::error_code ignored;
  fs::create_directory_symlink(target, link, ignored);
}

// Text that is mostly what a kernel writes, sometimes anything.
std::string Attribute(FuzzedDataProvider& input, const std::string& usual) {
  return input.ConsumeIntegralInRange(0, 3) == 0 ? input.ConsumeRandomLengthString(24) : usual;
}

// One folder per process, made for each input and removed once the input has been read.
const fs::path& Root() {
  static const fs::path root =
      fs::temp_directory_path() / ("harkwell-v4l2-fuzz-" + std::to_string(getpid()));
  return root;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harkwell::v4l2;
  FuzzedDataProvider input(data, size);
  const fs::path root = Root();
  fs::remove_all(root);
  const fs::path sys = root / "sys";
  fs::create_directories(sys / "class/video4linux");
  fs::create_directories(root / "dev");
  fs::create_directories(root / "udev");
  Link(sys / "bus/usb", sys / "devices/pci0000:00/0000:00:14.0/usb1/subsystem");

  const int nodes = input.ConsumeIntegralInRange(0, 5);
  std::map<std::string, NodeProbeResult> answers;
  for (int i = 0; i < nodes; ++i) {
    const unsigned minor = input.ConsumeIntegralInRange(0u, 7u);
    const std::string entry = input.ConsumeIntegralInRange(0, 7) == 0
                                  ? input.ConsumeRandomLengthString(12)
                                  : "video" + std::to_string(minor);
    if (entry.empty() || entry == "." || entry == ".." || entry.find('/') != std::string::npos ||
        entry.find('\0') != std::string::npos) {
      continue;
    }
    fs::path parent;
    switch (input.ConsumeIntegralInRange(0, 2)) {
      case 0: {
        const std::string port = "1-" + std::to_string(input.ConsumeIntegralInRange(1, 3));
        const fs::path device = sys / "devices/pci0000:00/0000:00:14.0/usb1" / port;
        Write(device / "idVendor", Attribute(input, "046d\n"));
        Write(device / "idProduct", Attribute(input, "0825\n"));
        if (input.ConsumeBool()) Write(device / "serial", Attribute(input, "A1B2C3\n"));
        if (input.ConsumeBool()) Write(device / "product", Attribute(input, "Webcam\n"));
        Link(sys / "bus/usb", device / "subsystem");
        parent = device / (port + ":1." + std::to_string(input.ConsumeIntegralInRange(0, 2)));
        Link(sys / "bus/usb", parent / "subsystem");
        break;
      }
      case 1:
        parent = sys / "devices/pci0000:00/0000:00:1f.0";
        Write(parent / "vendor", Attribute(input, "0x8086\n"));
        Write(parent / "device", Attribute(input, "0x1234\n"));
        Link(sys / "bus/pci", parent / "subsystem");
        break;
      default:
        break;
    }
    const fs::path folder =
        (parent.empty() ? sys / "devices/virtual" : parent) / "video4linux" / entry;
    fs::create_directories(folder);
    if (input.ConsumeIntegralInRange(0, 7) != 0) {
      Write(folder / "name", Attribute(input, "Camera " + std::to_string(i) + "\n"));
    }
    Write(folder / "index",
          Attribute(input, std::to_string(input.ConsumeIntegralInRange(0, 2)) + "\n"));
    Write(folder / "dev", Attribute(input, "81:" + std::to_string(minor) + "\n"));
    Write(folder / "uevent", Attribute(input, "MAJOR=81\nMINOR=" + std::to_string(minor) +
                                                  "\nDEVNAME=" + entry + "\n"));
    if (!parent.empty()) Link(parent, folder / "device");
    Link(folder, sys / "class/video4linux" / entry);
    if (input.ConsumeIntegralInRange(0, 5) != 0) Write(root / "dev" / entry, "");
    if (input.ConsumeBool()) {
      Write(root / "udev" / ("c81:" + std::to_string(minor)),
            input.ConsumeBool() ? "E:ID_V4L_CAPABILITIES=:capture:\nS:v4l/by-id/cam\n"
                                : input.ConsumeRandomLengthString(64));
    }
    NodeProbeResult answer;
    if (input.ConsumeIntegralInRange(0, 5) == 0) {
      answer.error = input.ConsumeBool() ? 13 : 25;  // EACCES, ENOTTY
    } else {
      answer.capabilities = NodeCapabilities{input.ConsumeIntegral<std::uint32_t>(),
                                             input.ConsumeRandomLengthString(16)};
    }
    answers[(root / "dev" / entry).string()] = answer;
  }

  const TreeLocation location{(root / "sys").string(), (root / "dev").string(),
                              input.ConsumeBool() ? (root / "udev").string() : std::string()};
  const NodeProbe probe = [&answers](const std::string& nodePath) {
    for (const auto& [path, answer] : answers) {
      std::error_code error;
      if (fs::equivalent(path, nodePath, error)) return answer;
    }
    return NodeProbeResult{std::nullopt, 2};  // ENOENT
  };
  const TreeReading reading = ReadV4L2Tree(location, probe);
  fs::remove_all(root);

  std::set<std::string> identities;
  for (const auto& camera : reading.cameras) {
    Require(!camera.name.empty(), "a camera without a name");
    Require(identities.insert(camera.identity).second, "two cameras with one identity");
    Require(camera.inputStreamCount + camera.outputStreamCount > 0,
            "a camera with neither capture nor output node");
    Require(!camera.nodePaths.empty(), "a camera without nodes");
  }
  return 0;
}
