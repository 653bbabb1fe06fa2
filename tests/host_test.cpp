// The computer model identifier: the two-call sysctl read with its failure rules, and the Linux
// firmware sources read from a tree the test builds.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "HarkwellFoundation/Host/ComputerModelIdentifier.h"
#include "HarkwellFoundation/Host/internal/ModelIdentifierSources.h"
#include "tests/support/LogCapture.h"

namespace harkwell {
namespace {

namespace fs = std::filesystem;

// A kernel whose hw.model holds `value`; each of the two calls can be made to fail, and a value
// can change between the size query and the read.
struct FakeKernel {
  std::string value;
  std::string valueAtRead;  // when set, what the read sees
  bool failSizeQuery = false;
  bool failRead = false;
  int calls = 0;
  std::vector<std::pair<int, int>> names;

  int operator()(int* name, unsigned nameLength, void* oldValue, std::size_t* oldLength,
                 void* newValue, std::size_t newLength) {
    ++calls;
    if (nameLength != 2 || newValue != nullptr || newLength != 0) return -1;
    names.emplace_back(name[0], name[1]);
    if (!oldValue) {
      if (failSizeQuery) return -1;
      *oldLength = value.size();
      return 0;
    }
    if (failRead) return -1;
    const std::string& current = valueAtRead.empty() ? value : valueAtRead;
    if (current.size() > *oldLength) return -1;  // ENOMEM: it no longer fits
    std::copy(current.begin(), current.end(), static_cast<char*>(oldValue));
    *oldLength = current.size();
    return 0;
  }
};

SysctlFunction Wrap(FakeKernel& kernel) {
  return [&kernel](int* n, unsigned l, void* o, std::size_t* ol, void* nv, std::size_t nl) {
    return kernel(n, l, o, ol, nv, nl);
  };
}

TEST(SysctlModelIdentifier, ResultIsTheTextBeforeTheFirstZeroByte) {
  FakeKernel kernel{.value = std::string("MacBookPro18,3\0junk\0", 21)};
  EXPECT_EQ(ComputerModelIdentifierFromSysctl(Wrap(kernel)), "MacBookPro18,3");
  EXPECT_EQ(kernel.calls, 2);
  EXPECT_EQ(kernel.names, (std::vector<std::pair<int, int>>{{6, 2}, {6, 2}}));
}

TEST(SysctlModelIdentifier, HasNoTrailingZeroByte) {
  FakeKernel kernel{.value = std::string("Mac14,2\0", 8)};
  const auto result = ComputerModelIdentifierFromSysctl(Wrap(kernel));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->size(), 7u);
  EXPECT_EQ(result->find('\0'), std::string::npos);
}

TEST(SysctlModelIdentifier, InvalidUTF8GivesEmptyNotARepairedString) {
  FakeKernel kernel{.value = std::string("Mac\xff\xfe\0", 6)};
  EXPECT_EQ(ComputerModelIdentifierFromSysctl(Wrap(kernel)), std::nullopt);
  FakeKernel overlong{.value = std::string("A\xc0\xaf\0", 4)};
  EXPECT_EQ(ComputerModelIdentifierFromSysctl(Wrap(overlong)), std::nullopt);
  FakeKernel surrogate{.value = std::string("\xed\xa0\x80\0", 4)};
  EXPECT_EQ(ComputerModelIdentifierFromSysctl(Wrap(surrogate)), std::nullopt);
}

TEST(SysctlModelIdentifier, WellFormedMultibyteTextIsKept) {
  FakeKernel kernel{.value = std::string("Modèle ✓ 𝄞\0", 16)};
  EXPECT_EQ(ComputerModelIdentifierFromSysctl(Wrap(kernel)), "Modèle ✓ 𝄞");
}

TEST(SysctlModelIdentifier, EachCallCanFailOnItsOwn) {
  FakeKernel sizeFails{.value = std::string("Mac14,2\0", 8), .failSizeQuery = true};
  EXPECT_EQ(ComputerModelIdentifierFromSysctl(Wrap(sizeFails)), std::nullopt);
  EXPECT_EQ(sizeFails.calls, 1);
  FakeKernel readFails{.value = std::string("Mac14,2\0", 8), .failRead = true};
  EXPECT_EQ(ComputerModelIdentifierFromSysctl(Wrap(readFails)), std::nullopt);
  EXPECT_EQ(readFails.calls, 2);
}

TEST(SysctlModelIdentifier, ValueThatNoLongerFitsIsNotRetried) {
  FakeKernel kernel{.value = std::string("Mac\0", 4),
                    .valueAtRead = std::string("MacBookPro18,3\0", 15)};
  EXPECT_EQ(ComputerModelIdentifierFromSysctl(Wrap(kernel)), std::nullopt);
  EXPECT_EQ(kernel.calls, 2);
}

TEST(SysctlModelIdentifier, TwoCallsInARowGiveEqualResults) {
  FakeKernel kernel{.value = std::string("Mac14,2\0", 8)};
  const auto first = ComputerModelIdentifierFromSysctl(Wrap(kernel));
  const auto second = ComputerModelIdentifierFromSysctl(Wrap(kernel));
  EXPECT_EQ(first, second);
  EXPECT_EQ(kernel.calls, 4) << "nothing is kept between calls";
  // The buffers are freed on every path; the sanitizer builds check that nothing leaks.
}

class FirmwareTree : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() /
            ("harkwell-host-" + std::to_string(::getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root_);
    fs::create_directories(root_ / "sys/class/dmi/id");
  }
  void TearDown() override { fs::remove_all(root_); }

  void write(const fs::path& relative, const std::string& bytes) {
    fs::create_directories((root_ / relative).parent_path());
    std::ofstream(root_ / relative, std::ios::binary) << bytes;
  }

  fs::path root_;
  testing::LogCapture log_;
};

TEST_F(FirmwareTree, ProductNameGetsTheVendorInFront) {
  write("sys/class/dmi/id/product_name", "20XW0026GE\n");
  write("sys/class/dmi/id/sys_vendor", "LENOVO\n");
  EXPECT_EQ(ComputerModelIdentifierFromLinuxFirmware(root_), "LENOVO 20XW0026GE");
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(FirmwareTree, ProductNameThatAlreadyNamesTheVendorIsKept) {
  write("sys/class/dmi/id/product_name", "Dell XPS 13 9310\n");
  write("sys/class/dmi/id/sys_vendor", "Dell\n");
  EXPECT_EQ(ComputerModelIdentifierFromLinuxFirmware(root_), "Dell XPS 13 9310");
  write("sys/class/dmi/id/product_name", "MacBookPro11,1\n");
  write("sys/class/dmi/id/sys_vendor", "Apple Inc.\n");
  EXPECT_EQ(ComputerModelIdentifierFromLinuxFirmware(root_), "MacBookPro11,1");
}

TEST_F(FirmwareTree, PlaceholderProductNameFallsBackToTheDeviceTree) {
  write("sys/class/dmi/id/product_name", "To Be Filled By O.E.M.\n");
  write("proc/device-tree/model", std::string("Raspberry Pi 4 Model B Rev 1.4\0", 32));
  EXPECT_EQ(ComputerModelIdentifierFromLinuxFirmware(root_), "Raspberry Pi 4 Model B Rev 1.4");
}

TEST_F(FirmwareTree, InvalidUTF8GivesEmpty) {
  fs::remove_all(root_ / "sys");
  write("proc/device-tree/model", std::string("Board \xff\0", 8));
  EXPECT_EQ(ComputerModelIdentifierFromLinuxFirmware(root_), std::nullopt);
}

TEST_F(FirmwareTree, NoSourceGivesEmpty) {
  fs::remove_all(root_ / "sys");
  EXPECT_EQ(ComputerModelIdentifierFromLinuxFirmware(root_), std::nullopt);
}

TEST(ComputerModelIdentifierOnThisMachine, AnswersTheSameTwiceAndLogsNothing) {
  testing::LogCapture log;
  EXPECT_EQ(ComputerModelIdentifier(), ComputerModelIdentifier());
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace harkwell
