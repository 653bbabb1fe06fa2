// A fixture for the back-end suites: each test gets fresh simulated audio and video services
// installed process-wide, and the services installed before are put back when the test ends.
// Also small helpers to pick calls out of a simulated service's call record.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"

namespace harkwell::testing {

class SimulatedServicesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousAudio_ = InstallAudioHardwareService(audio);
    previousVideo_ = InstallVideoHardwareService(video);
  }

  void TearDown() override {
    InstallAudioHardwareService(previousAudio_);
    InstallVideoHardwareService(previousVideo_);
  }

  const std::shared_ptr<SimulatedAudioHardwareService> audio =
      SimulatedAudioHardwareService::create();
  const std::shared_ptr<SimulatedVideoHardwareService> video =
      SimulatedVideoHardwareService::create();

 private:
  std::shared_ptr<AudioHardwareService> previousAudio_;
  std::shared_ptr<VideoHardwareService> previousVideo_;
};

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
