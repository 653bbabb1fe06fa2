// The V4L2 tree reader on fake trees: how nodes become cameras (grouping, names, UIDs, model UIDs,
// transports, stream counts) and what it says about broken trees. Also the log-text escaping and
// the udev database parser it relies on.
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <map>

#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2LogText.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2SysfsReader.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2UdevRecord.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "tests/support/FakeV4L2Tree.h"

namespace harkwell::testing {
namespace {

using v4l2::CameraDescription;
using v4l2::NodeProbe;
using v4l2::NodeProbeResult;
using v4l2::ReadV4L2Tree;
using v4l2::TreeReading;

// A probe that answers like a node that cannot be opened.
NodeProbeResult RefusingProbe(const std::string&) {
  return {std::nullopt, EACCES};
}

// A probe answering from a table keyed by node name; other nodes refuse.
NodeProbe TableProbe(std::map<std::string, std::uint32_t> capsOfEntry) {
  return [capsOfEntry](const std::string& path) -> NodeProbeResult {
    const std::string entry = path.substr(path.rfind('/') + 1);
    auto found = capsOfEntry.find(entry);
    if (found == capsOfEntry.end()) return {std::nullopt, EACCES};
    return {v4l2::NodeCapabilities{found->second, "Card " + entry}, 0};
  };
}

class V4L2TreeReading : public ::testing::Test {
 protected:
  TreeReading read(const NodeProbe& probe = &RefusingProbe) {
    return ReadV4L2Tree({tree.sysfsRoot(), tree.devRoot(), tree.udevDataRoot()}, probe);
  }

  FakeV4L2Tree tree;
};

TEST_F(V4L2TreeReading, UsbCameraWithCaptureAndMetadataNodesIsOneCamera) {
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video0", .index = 0, .minor = 0, .parent = usb});
  tree.addNode({.entry = "video1",
                .nameFile = "Webcam C270: Webcam C270\n",
                .index = 1,
                .minor = 1,
                .parent = usb});

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  const CameraDescription& camera = reading.cameras[0];
  EXPECT_EQ(camera.name, "Webcam C270: Webcam C270");
  EXPECT_EQ(camera.uid, "usb:046d:0825:A1B2C3@1-2:1.0");
  EXPECT_EQ(camera.modelUID, "usb:046d:0825");
  EXPECT_EQ(camera.transportType, kVideoTransportTypeUSB);
  EXPECT_EQ(camera.inputStreamCount, 1u);
  EXPECT_EQ(camera.outputStreamCount, 0u);
  EXPECT_EQ(camera.nodePaths,
            (std::vector<std::string>{tree.devNodePath("video0"), tree.devNodePath("video1")}));
  EXPECT_TRUE(reading.diagnostics.empty());
}

TEST_F(V4L2TreeReading, UsbCameraWithoutSerialHasPortOnlyUID) {
  const std::string usb = tree.addUsbInterface({.serial = std::nullopt});
  tree.addNode({.parent = usb});

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].uid, "usb:046d:0825:@1-2:1.0");
}

TEST_F(V4L2TreeReading, IdenticalCamerasInTwoPortsAreTwoCamerasWithDistinctUIDs) {
  const std::string first = tree.addUsbInterface({.port = "1-2", .serial = std::nullopt});
  const std::string second = tree.addUsbInterface({.port = "1-3", .serial = std::nullopt});
  tree.addNode({.entry = "video0", .minor = 0, .parent = first});
  tree.addNode({.entry = "video2", .minor = 2, .parent = second});

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 2u);
  EXPECT_EQ(reading.cameras[0].uid, "usb:046d:0825:@1-2:1.0");
  EXPECT_EQ(reading.cameras[1].uid, "usb:046d:0825:@1-3:1.0");
  EXPECT_NE(reading.cameras[0].identity, reading.cameras[1].identity);
}

TEST_F(V4L2TreeReading, CamerasAreOrderedByNodeNumber) {
  const std::string first = tree.addUsbInterface({.port = "1-2"});
  const std::string second = tree.addUsbInterface({.port = "1-3"});
  tree.addNode({.entry = "video10", .nameFile = "Ten\n", .minor = 10, .parent = first});
  tree.addNode({.entry = "video2", .nameFile = "Two\n", .minor = 2, .parent = second});

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 2u);
  EXPECT_EQ(reading.cameras[0].name, "Two");
  EXPECT_EQ(reading.cameras[1].name, "Ten");
}

TEST_F(V4L2TreeReading, LoopbackDeviceIsVirtualWithOneInputAndOneOutputAndNoModel) {
  tree.addNode({.entry = "video5", .nameFile = "Dummy video device (0x0000)\n", .minor = 5});

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  const CameraDescription& camera = reading.cameras[0];
  EXPECT_EQ(camera.transportType, kVideoTransportTypeVirtual);
  EXPECT_EQ(camera.uid, "virtual:video5");
  EXPECT_EQ(camera.modelUID, std::nullopt);
  EXPECT_EQ(camera.inputStreamCount, 1u);
  EXPECT_EQ(camera.outputStreamCount, 1u);
}

TEST_F(V4L2TreeReading, LoopbackReportingOnlyOutputStillCountsAsBoth) {
  tree.addNode({.entry = "video5", .minor = 5});

  const TreeReading reading = read(TableProbe({{"video5", V4L2_CAP_VIDEO_OUTPUT}}));

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].inputStreamCount, 1u);
  EXPECT_EQ(reading.cameras[0].outputStreamCount, 1u);
}

TEST_F(V4L2TreeReading, PlatformCameraIsBuiltInWithItsDriverAsModel) {
  const std::string platform = tree.addPlatformDevice("fe801000.csi", "unicam");
  tree.addNode({.entry = "video0", .nameFile = "unicam-image\n", .parent = platform});

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].transportType, kVideoTransportTypeBuiltIn);
  EXPECT_EQ(reading.cameras[0].modelUID, "driver:unicam");
  EXPECT_EQ(reading.cameras[0].uid, "sysfs:devices/platform/fe801000.csi");
}

TEST_F(V4L2TreeReading, PciCaptureCardIsPciWithVendorAndDeviceAsModel) {
  const std::string pci = tree.addPciDevice("0000:03:00.0", "0x1131", "0x7160");
  tree.addNode({.entry = "video0", .nameFile = "SAA7164\n", .parent = pci});

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].transportType, kVideoTransportTypePCI);
  EXPECT_EQ(reading.cameras[0].modelUID, "pci:1131:7160");
}

TEST_F(V4L2TreeReading, ParentOnNoKnownBusIsOther) {
  tree.makeFolder("sys/devices/something/odd0");
  tree.addNode({.entry = "video0", .parent = "devices/something/odd0"});

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].transportType, kVideoTransportTypeOther);
  EXPECT_EQ(reading.cameras[0].modelUID, std::nullopt);
}

TEST_F(V4L2TreeReading, NodeCapabilitiesDecideTheStreams) {
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video0", .index = 0, .minor = 0, .parent = usb});
  tree.addNode({.entry = "video1", .index = 1, .minor = 1, .parent = usb});
  tree.addNode({.entry = "video2", .index = 2, .minor = 2, .parent = usb});

  const TreeReading reading = read(TableProbe({
      {"video0", V4L2_CAP_META_CAPTURE},
      {"video1", V4L2_CAP_VIDEO_CAPTURE_MPLANE},
      {"video2", V4L2_CAP_VIDEO_OUTPUT},
  }));

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].inputStreamCount, 1u);
  EXPECT_EQ(reading.cameras[0].outputStreamCount, 1u);
  EXPECT_EQ(reading.cameras[0].nodePaths.size(), 3u);
}

TEST_F(V4L2TreeReading, MemoryToMemoryAndMetadataOnlyGroupsAreNoCameras) {
  const std::string codec = tree.addPlatformDevice("codec", "bcm2835-codec");
  const std::string meta = tree.addPlatformDevice("meta", "metadriver");
  tree.addNode({.entry = "video10", .minor = 10, .parent = codec});
  tree.addNode({.entry = "video11", .minor = 11, .parent = meta});

  const TreeReading reading = read(TableProbe({
      {"video10", V4L2_CAP_VIDEO_M2M_MPLANE | V4L2_CAP_VIDEO_CAPTURE_MPLANE},
      {"video11", V4L2_CAP_META_CAPTURE},
  }));

  EXPECT_TRUE(reading.cameras.empty());
  EXPECT_TRUE(reading.diagnostics.empty());
  // Both were asked, so their answers can be remembered although they are no cameras.
  EXPECT_EQ(reading.probedNodePaths,
            (std::vector<std::string>{tree.devNodePath("video10"), tree.devNodePath("video11")}));
}

TEST_F(V4L2TreeReading, UdevAnswersForANodeThatCannotBeOpened) {
  const std::string pci = tree.addPciDevice("0000:03:00.0", "0x1131", "0x7160");
  tree.addNode({.entry = "video0", .index = 0, .minor = 0, .parent = pci});
  tree.addNode({.entry = "video1", .index = 1, .minor = 1, .parent = pci});
  tree.writeUdevRecord(0,
                       "S:v4l/by-id/pci-Capture_Card_42-video-index0\n"
                       "E:ID_V4L_CAPABILITIES=:capture:\n");
  tree.writeUdevRecord(1,
                       "S:v4l/by-id/pci-Capture_Card_42-video-index1\n"
                       "E:ID_V4L_CAPABILITIES=:capture:video_output:\n");

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].inputStreamCount, 2u);
  EXPECT_EQ(reading.cameras[0].outputStreamCount, 1u);
  EXPECT_EQ(reading.cameras[0].uid, "by-id:pci-Capture_Card_42");
  EXPECT_EQ(reading.udevRecordNames, (std::vector<std::string>{"c81:0", "c81:1"}));
}

TEST_F(V4L2TreeReading, NodeThatCannotBeOpenedStillAppearsWithWhatSysfsTells) {
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video0", .parent = usb});

  const TreeReading reading = read(&RefusingProbe);

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].name, "Webcam C270: Webcam C270");
  EXPECT_EQ(reading.cameras[0].inputStreamCount, 1u);
  EXPECT_TRUE(reading.diagnostics.empty());
}

TEST_F(V4L2TreeReading, EntryWithoutDevNodeIsNotReported) {
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video0", .parent = usb, .withDevNode = false});

  const TreeReading reading = read();

  EXPECT_TRUE(reading.cameras.empty());
  EXPECT_TRUE(reading.diagnostics.empty());
  EXPECT_EQ(reading.deviceNodeNames, std::vector<std::string>{"video0"});
}

TEST_F(V4L2TreeReading, MissingVideoClassMeansNoCamerasAndNoLines) {
  std::filesystem::remove_all(tree.sysfsRoot() + "/class/video4linux");

  const TreeReading reading = read();

  EXPECT_TRUE(reading.cameras.empty());
  EXPECT_TRUE(reading.diagnostics.empty());
}

TEST_F(V4L2TreeReading, OtherNodeKindsAreIgnored) {
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "v4l-subdev0", .parent = usb});
  tree.addNode({.entry = "radio0", .parent = usb});

  EXPECT_TRUE(read().cameras.empty());
}

TEST_F(V4L2TreeReading, NameBytesPassThroughUnaltered) {
  const std::string usb = tree.addUsbInterface({});
  const std::string name = std::string("Cam\nera \xff\xfe \xc3\xa9") + '\0' + "end";
  tree.addNode({.entry = "video0", .nameFile = name + "\n", .parent = usb});

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].name, name);
  EXPECT_TRUE(reading.diagnostics.empty());
}

TEST_F(V4L2TreeReading, MissingNameFallsBackToTheUsbProductWithOneLine) {
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video0", .nameFile = std::nullopt, .parent = usb});

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].name, "Webcam C270");
  EXPECT_EQ(reading.diagnostics,
            std::vector<std::string>{"V4L2: \"video0\" has no name in sysfs (No such file or "
                                     "directory); calling it \"Webcam C270\""});
}

TEST_F(V4L2TreeReading, EmptyNameFallsBackToTheCardThenToTheNodeName) {
  const std::string pci = tree.addPciDevice("0000:03:00.0", "0x1131", "0x7160");
  const std::string other = tree.addPciDevice("0000:04:00.0", "0x1131", "0x7160");
  tree.addNode({.entry = "video0", .nameFile = "\n", .minor = 0, .parent = pci});
  tree.addNode({.entry = "video1", .nameFile = "", .minor = 1, .parent = other});

  const TreeReading reading = read(TableProbe({{"video0", V4L2_CAP_VIDEO_CAPTURE}}));

  ASSERT_EQ(reading.cameras.size(), 2u);
  EXPECT_EQ(reading.cameras[0].name, "Card video0");
  EXPECT_EQ(reading.cameras[1].name, "video1");
  EXPECT_EQ(reading.diagnostics,
            (std::vector<std::string>{
                "V4L2: \"video0\" has no name in sysfs (it is empty); calling it \"Card video0\"",
                "V4L2: \"video1\" has no name in sysfs (it is empty); calling it \"video1\""}));
}

TEST_F(V4L2TreeReading, FifoInPlaceOfTheNameDoesNotBlock) {
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video0", .nameFile = std::nullopt, .parent = usb});
  const std::string fifo = tree.sysfsRoot() + "/" + usb + "/video4linux/video0/name";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].name, "Webcam C270");
  EXPECT_EQ(reading.diagnostics,
            std::vector<std::string>{"V4L2: \"video0\" has no name in sysfs (Invalid argument); "
                                     "calling it \"Webcam C270\""});
}

TEST_F(V4L2TreeReading, SymlinkLoopIsSkippedWithOneLineAndTheRestIsReported) {
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video0", .parent = usb});
  tree.makeSymlink(tree.sysfsRoot() + "/class/video4linux/video7", "sys/class/video4linux/video7");

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].name, "Webcam C270: Webcam C270");
  ASSERT_EQ(reading.diagnostics.size(), 1u);
  EXPECT_EQ(reading.diagnostics[0],
            "V4L2: skipping \"video7\": cannot resolve \"" + tree.sysfsRoot() +
                "/class/video4linux/video7\": Too many levels of symbolic links");
}

TEST_F(V4L2TreeReading, LoopingDevNodeIsSkippedWithOneLine) {
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video3", .minor = 3, .parent = usb, .withDevNode = false});
  tree.makeSymlink(tree.devRoot() + "/video3", "dev/video3");

  const TreeReading reading = read();

  EXPECT_TRUE(reading.cameras.empty());
  EXPECT_EQ(
      reading.diagnostics,
      std::vector<std::string>{"V4L2: skipping \"video3\": cannot resolve \"" + tree.devRoot() +
                               "/video3\": Too many levels of symbolic links"});
}

TEST_F(V4L2TreeReading, FolderInPlaceOfTheDevNodeIsSkippedWithOneLine) {
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video3", .minor = 3, .parent = usb, .withDevNode = false});
  tree.makeFolder("dev/video3");

  const TreeReading reading = read();

  EXPECT_TRUE(reading.cameras.empty());
  EXPECT_EQ(reading.diagnostics,
            std::vector<std::string>{"V4L2: skipping \"video3\": \"" + tree.devRoot() +
                                     "/video3\" is a folder, not a device node"});
}

TEST_F(V4L2TreeReading, LoopingParentLinkMakesTheNodeADeviceOfItsOwn) {
  tree.addNode({.entry = "video4", .minor = 4});
  const std::string node = "sys/devices/virtual/video4linux/video4";
  tree.makeSymlink(tree.root() + "/" + node + "/device", node + "/device");

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].transportType, kVideoTransportTypeVirtual);
  EXPECT_EQ(reading.cameras[0].uid, "sysfs:devices/virtual/video4linux/video4");
  ASSERT_EQ(reading.diagnostics.size(), 1u);
  EXPECT_EQ(reading.diagnostics[0], "V4L2: \"video4\": cannot resolve its parent device \"" +
                                        tree.sysfsRoot() +
                                        "/devices/virtual/video4linux/video4/device\": Too many "
                                        "levels of symbolic links; treating "
                                        "the node as a device of its own");
}

TEST_F(V4L2TreeReading, EntryNameWithNewlineAndInvalidUtf8GivesOneEscapedLine) {
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video0", .parent = usb});
  const std::string odd = "video9\n\xff";
  tree.makeSymlink(tree.sysfsRoot() + "/class/video4linux/" + odd, "sys/class/video4linux/" + odd);

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  ASSERT_EQ(reading.diagnostics.size(), 1u);
  EXPECT_EQ(reading.diagnostics[0].find('\n'), std::string::npos);
  EXPECT_EQ(reading.diagnostics[0].rfind("V4L2: skipping \"video9\\x0a\\xff\": cannot resolve", 0),
            0u)
      << reading.diagnostics[0];
}

TEST_F(V4L2TreeReading, GarbageAttributesStillGiveACamera) {
  const std::string usb = tree.addUsbInterface({.vendor = "", .product = "\xff\xff"});
  tree.addNode({.entry = "video0", .parent = usb});
  const std::string node = "sys/" + usb + "/video4linux/video0";
  tree.writeFile(node + "/index", "not a number");
  tree.writeFile(node + "/dev", "\n\n");
  tree.writeFile(node + "/uevent", "DEVNAME=../../etc/passwd\n");

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1u);
  EXPECT_EQ(reading.cameras[0].uid, "usb::\xff\xff:A1B2C3@1-2:1.0");
  EXPECT_EQ(reading.cameras[0].nodePaths, std::vector<std::string>{tree.devNodePath("video0")});
  EXPECT_TRUE(reading.udevRecordNames.empty());
}

TEST_F(V4L2TreeReading, ThousandNodesAreAllReported) {
  for (unsigned i = 0; i < 1000; ++i) {
    tree.addNode({.entry = "video" + std::to_string(i),
                  .nameFile = "Loop " + std::to_string(i) + "\n",
                  .minor = i});
  }

  const TreeReading reading = read();

  ASSERT_EQ(reading.cameras.size(), 1000u);
  EXPECT_EQ(reading.cameras[0].name, "Loop 0");
  EXPECT_EQ(reading.cameras[999].name, "Loop 999");
  EXPECT_TRUE(reading.diagnostics.empty());
}

// --- Log text ------------------------------------------------------------------------------------

TEST(V4L2LogText, KeepsPrintableUtf8) {
  EXPECT_EQ(v4l2::PrintableForLog("Caméra 日本 ok"), "Caméra 日本 ok");
}

TEST(V4L2LogText, EscapesControlsInvalidBytesAndBackslash) {
  EXPECT_EQ(v4l2::PrintableForLog(std::string("a\nb\x1b[31m\\\xff\x7f") + '\0'),
            "a\\x0ab\\x1b[31m\\\\\\xff\\x7f\\x00");
}

TEST(V4L2LogText, EscapesOverlongSurrogateC1AndLineSeparators) {
  EXPECT_EQ(v4l2::PrintableForLog("\xc0\xaf"), "\\xc0\\xaf");
  EXPECT_EQ(v4l2::PrintableForLog("\xed\xa0\x80"), "\\xed\\xa0\\x80");
  EXPECT_EQ(v4l2::PrintableForLog("\xc2\x85"), "\\xc2\\x85");
  EXPECT_EQ(v4l2::PrintableForLog("\xe2\x80\xa8"), "\\xe2\\x80\\xa8");
  EXPECT_EQ(v4l2::PrintableForLog("\xe2\x82"), "\\xe2\\x82");
}

// --- udev database -------------------------------------------------------------------------------

TEST(V4L2UdevRecord, ParsesPropertiesAndLinks) {
  const v4l2::UdevRecord record = v4l2::ParseUdevRecord(
      "S:v4l/by-id/usb-Cam-video-index0\nI:123\nE:ID_V4L_CAPABILITIES=:capture:\nE:BAD\n"
      "E:ID_V4L_PRODUCT=A=B\nG:uaccess");

  EXPECT_EQ(record.links, std::vector<std::string>{"v4l/by-id/usb-Cam-video-index0"});
  EXPECT_EQ(record.property("ID_V4L_CAPABILITIES"), ":capture:");
  EXPECT_EQ(record.property("ID_V4L_PRODUCT"), "A=B");
  EXPECT_EQ(record.property("BAD"), std::nullopt);
}

TEST(V4L2UdevRecord, NamesEntriesByDeviceNumber) {
  EXPECT_EQ(v4l2::UdevRecordName("81:12\n"), "c81:12");
  EXPECT_EQ(v4l2::UdevRecordName("81"), std::nullopt);
  EXPECT_EQ(v4l2::UdevRecordName("81:x"), std::nullopt);
  EXPECT_EQ(v4l2::UdevRecordName("/../:1"), std::nullopt);
}

}  // namespace
}  // namespace harkwell::testing
