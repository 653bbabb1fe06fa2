// A fixture for the back-end suites: each test gets fresh simulated audio and video services
// installed process-wide, and the services installed before are put back when the test ends.
// Also small helpers to pick calls out of a simulated service's call record.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/PlatformString.h"
#include "HarkwellFoundation/Platform/SharedHardwareCodes.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "tests/support/ScopedHardwareServices.h"

namespace harkwell::testing {

class SimulatedServicesTest : public ::testing::Test {
 protected:
  void SetUp() override { services_.install(audio, video); }
  void TearDown() override { services_.restore(); }

  const std::shared_ptr<SimulatedAudioHardwareService> audio =
      SimulatedAudioHardwareService::create();
  const std::shared_ptr<SimulatedVideoHardwareService> video =
      SimulatedVideoHardwareService::create();

 private:
  ScopedHardwareServices services_;
};

// Expects, when it goes away, as many platform strings alive as when it was made: every string
// reference a read received has been released.
class PlatformStringLeakCheck {
 public:
  PlatformStringLeakCheck() : liveAtStart_(PlatformStringLiveCount()) {}
  ~PlatformStringLeakCheck() { EXPECT_EQ(PlatformStringLiveCount(), liveAtStart_); }
  PlatformStringLeakCheck(const PlatformStringLeakCheck&) = delete;
  PlatformStringLeakCheck& operator=(const PlatformStringLeakCheck&) = delete;

 private:
  std::size_t liveAtStart_;
};

// Addresses as the library builds them, with element 0. The audio and video services use the same
// scope codes.
constexpr PropertyAddress GlobalAddress(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMaster};
}
constexpr PropertyAddress InputAddress(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeInput, kAudioObjectPropertyElementMaster};
}
constexpr PropertyAddress OutputAddress(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeOutput, kAudioObjectPropertyElementMaster};
}

// The calls of one kind, in the order they were made.
inline std::vector<SimulatedCall> CallsOfKind(const std::vector<SimulatedCall>& calls,
                                              SimulatedCallKind kind) {
  std::vector<SimulatedCall> matching;
  std::copy_if(calls.begin(), calls.end(), std::back_inserter(matching),
               [kind](const SimulatedCall& call) { return call.kind == kind; });
  return matching;
}

// The calls of one kind on one object and address.
inline std::vector<SimulatedCall> CallsAt(const std::vector<SimulatedCall>& calls,
                                          SimulatedCallKind kind, ObjectID object,
                                          const PropertyAddress& address) {
  std::vector<SimulatedCall> matching;
  std::copy_if(calls.begin(), calls.end(), std::back_inserter(matching),
               [&](const SimulatedCall& call) {
                 return call.kind == kind && call.object == object && call.address == address;
               });
  return matching;
}

// A 4 KiB text that a careless logger or string conversion would mangle: format directives,
// newlines and bytes that are not valid UTF-8.
inline std::string HostileText() {
  std::string text;
  const std::string piece = "%s%n%%d\n\r\t\xff\xfe\xc3(\xe2\x82 caf\xc3\xa9 %@";
  while (text.size() < 4096) text += piece;
  text.resize(4096);
  return text;
}

}  // namespace harkwell::testing
