// The macOS services against the real platform: the libdispatch queues, the blocks handed to
// CoreAudio and CoreMediaIO, and the two passthrough services. Built and run on macOS only.
#include <gtest/gtest.h>

#include <Block.h>
#include <dispatch/dispatch.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "HarkwellFoundation/Consumers/MediaDeviceConsumers.h"
#include "HarkwellFoundation/Platform/Apple/AppleDispatchQueue.h"
#include "HarkwellFoundation/Platform/Apple/AppleListenerBlock.h"
#include "HarkwellFoundation/Platform/Apple/CoreAudioHardwareService.h"
#include "HarkwellFoundation/Platform/Apple/CoreMediaIOHardwareService.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using testing::Recorder;

// The shape of the platform's address and listener block, for a stand-in registration function.
struct FakeAddress {
  std::uint32_t mSelector;
  std::uint32_t mScope;
  std::uint32_t mElement;
};
using FakeBlock = void (^)(std::uint32_t, const FakeAddress*);

// Keeps every block it is handed (a heap copy of its own), like a platform's listener table.
struct FakeRegistration {
  std::vector<FakeBlock> blocks;
  std::vector<dispatch_queue_t> queues;
  std::vector<FakeAddress> addresses;

  ~FakeRegistration() {
    for (FakeBlock block : blocks) Block_release(block);
  }

  auto function() {
    return [this](std::uint32_t, const FakeAddress* address, dispatch_queue_t queue,
                  FakeBlock block) -> OSStatus {
      blocks.push_back(Block_copy(block));
      queues.push_back(queue);
      addresses.push_back(*address);
      return kNoErr;
    };
  }
};

// Runs a block on a libdispatch queue without any marking of ours, as the platform does.
struct PlatformDelivery {
  FakeBlock block;
  std::vector<FakeAddress> changed;
};

void deliver(void* context) {
  auto* delivery = static_cast<PlatformDelivery*>(context);
  delivery->block(static_cast<std::uint32_t>(delivery->changed.size()), delivery->changed.data());
  delete delivery;
}

class ForeignQueue final : public DispatchQueue {
 public:
  ForeignQueue() : DispatchQueue("foreign") {}
  void async(Work work) override { work(); }
  void sync(Work work) override { work(); }
};

SharedPropertyListener MakeClosure(std::function<void(std::uint32_t, const PropertyAddress*)> f) {
  return std::make_shared<const PropertyListener>(std::move(f));
}

constexpr PropertyAddress kAudioDevices{kAudioHardwarePropertyDevices,
                                        kAudioObjectPropertyScopeGlobal, 0};
constexpr PropertyAddress kVideoDevices{kCMIOHardwarePropertyDevices,
                                        kCMIOObjectPropertyScopeGlobal, 0};

TEST(AppleDispatchQueue, QueuesWrapLibdispatchQueues) {
  auto serial = DispatchQueue::createSerial("com.harkwell.test.serial");
  EXPECT_NE(NativeDispatchQueue(*serial), nullptr);
  EXPECT_EQ(NativeDispatchQueue(*DispatchQueue::main()), dispatch_get_main_queue());
  ForeignQueue foreign;
  EXPECT_EQ(NativeDispatchQueue(foreign), nullptr);
}

TEST(AppleListenerBlock, PlatformDeliveryRunsTheClosureAsWorkOfTheQueue) {
  auto queue = DispatchQueue::createSerial("com.harkwell.test.delivery");
  Recorder<std::vector<std::uint32_t>> calls;
  auto closure = MakeClosure([&](std::uint32_t count, const PropertyAddress* addresses) {
    std::vector<std::uint32_t> seen{count, queue->isCurrent() ? 1u : 0u};
    for (std::uint32_t i = 0; i < count; ++i) seen.push_back(addresses[i].mSelector);
    calls.append(seen);
  });
  FakeRegistration registration;
  ASSERT_EQ((RegisterWithNewBlock<FakeAddress, FakeBlock>(
                registration.function(), 1, kAudioDevices, queue,
                PlatformListenerBlock::copy(closure), -1)),
            kNoErr);
  ASSERT_EQ(registration.blocks.size(), 1u);
  EXPECT_EQ(registration.queues[0], NativeDispatchQueue(*queue));
  EXPECT_EQ(registration.addresses[0].mSelector, kAudioHardwarePropertyDevices);
  EXPECT_EQ(registration.addresses[0].mScope, kAudioObjectPropertyScopeGlobal);

  dispatch_async_f(NativeDispatchQueue(*queue),
                   new PlatformDelivery{registration.blocks[0], {{11, 0, 0}, {22, 0, 0}}},
                   &deliver);
  ASSERT_TRUE(calls.waitForCount(1));
  EXPECT_EQ(calls.entries()[0], (std::vector<std::uint32_t>{2, 1, 11, 22}));
}

TEST(AppleListenerBlock, EveryCallHandsOverADifferentBlock) {
  auto queue = DispatchQueue::createSerial("com.harkwell.test.identity");
  auto block =
      PlatformListenerBlock::copy(MakeClosure([](std::uint32_t, const PropertyAddress*) {}));
  FakeRegistration registration;
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ((RegisterWithNewBlock<FakeAddress, FakeBlock>(registration.function(), 1,
                                                            kAudioDevices, queue, block, -1)),
              kNoErr);
  }
  ASSERT_EQ(registration.blocks.size(), 2u);
  EXPECT_NE(registration.blocks[0], registration.blocks[1]);
}

TEST(AppleListenerBlock, QueueWithoutLibdispatchQueueIsRefused) {
  auto foreign = std::make_shared<ForeignQueue>();
  FakeRegistration registration;
  EXPECT_EQ(
      (RegisterWithNewBlock<FakeAddress, FakeBlock>(
          registration.function(), 1, kAudioDevices, foreign,
          PlatformListenerBlock::copy(MakeClosure([](std::uint32_t, const PropertyAddress*) {})),
          -7)),
      -7);
  EXPECT_TRUE(registration.blocks.empty());
}

// The device list of `service`'s system object: its size, then a read with room to spare.
// Returns {size, bytes the read reports}.
std::pair<std::uint32_t, std::uint32_t> ReadDeviceList(HardwareService& service,
                                                       ObjectID systemObject,
                                                       const PropertyAddress& devices) {
  std::uint32_t size = 0;
  EXPECT_EQ(service.getPropertyDataSize(systemObject, devices, 0, nullptr, &size), kNoErr);
  std::vector<ObjectID> ids(size / sizeof(ObjectID) + 1);
  std::uint32_t used = static_cast<std::uint32_t>(ids.size() * sizeof(ObjectID));
  EXPECT_EQ(service.getPropertyData(systemObject, devices, 0, nullptr, &used, ids.data()), kNoErr);
  return {size, used};
}

// Adds a device-list listener and removes it with the very same seam block; the service still
// hands the platform a new block for the removal, which the platform cannot match.
void ExpectRemovalRefused(HardwareService& service, ObjectID systemObject,
                          const PropertyAddress& devices) {
  auto queue = DispatchQueue::createSerial("com.harkwell.test.removal");
  auto block =
      PlatformListenerBlock::copy(MakeClosure([](std::uint32_t, const PropertyAddress*) {}));
  ASSERT_EQ(service.addPropertyListenerBlock(systemObject, devices, queue, block), kNoErr);
  EXPECT_NE(service.removePropertyListenerBlock(systemObject, devices, queue, block), kNoErr);
}

TEST(CoreAudioHardwareService, UnknownObjectAnswersBadObject) {
  auto service = CoreAudioHardwareService::create();
  const PropertyAddress name{kAudioObjectPropertyName, kAudioObjectPropertyScopeGlobal, 0};
  std::uint32_t size = 0;
  EXPECT_EQ(service->getPropertyDataSize(0x7FFFFFF0, name, 0, nullptr, &size),
            kAudioHardwareBadObjectError);
}

TEST(CoreAudioHardwareService, DeviceListIsWholeObjectIDs) {
  auto service = CoreAudioHardwareService::create();
  const auto [size, used] = ReadDeviceList(*service, kAudioObjectSystemObject, kAudioDevices);
  EXPECT_EQ(size % sizeof(ObjectID), 0u);
  EXPECT_EQ(used, size);
}

TEST(CoreAudioHardwareService, RemovalIsRefusedBecauseEveryCallMakesANewBlock) {
  auto service = CoreAudioHardwareService::create();
  ExpectRemovalRefused(*service, kAudioObjectSystemObject, kAudioDevices);
}

constexpr PropertyAddress kConsumers{kAudioDevicePropertyConsumers, kAudioObjectPropertyScopeGlobal,
                                     0};

// Every audio device answers its consumers as a whole encoding (macOS 14 and later) or "who?"
// (before), and a consumers listener can be added and then removed.
TEST(CoreAudioHardwareService, DevicesAnswerTheirConsumersAndTakeConsumersListeners) {
  auto service = CoreAudioHardwareService::create();
  std::uint32_t size = 0;
  ASSERT_EQ(
      service->getPropertyDataSize(kAudioObjectSystemObject, kAudioDevices, 0, nullptr, &size),
      kNoErr);
  std::vector<ObjectID> devices(size / sizeof(ObjectID));
  ASSERT_EQ(service->getPropertyData(kAudioObjectSystemObject, kAudioDevices, 0, nullptr, &size,
                                     devices.data()),
            kNoErr);
  auto queue = DispatchQueue::createSerial("com.harkwell.test.consumers");
  for (const ObjectID device : devices) {
    const auto consumers = ReadDeviceConsumers(*service, device);
    if (!consumers) {
      std::uint32_t unknown = 0;
      EXPECT_EQ(service->getPropertyDataSize(device, kConsumers, 0, nullptr, &unknown),
                kAudioHardwareUnknownPropertyError);
      continue;
    }
    for (const MediaDeviceConsumer& consumer : *consumers) {
      EXPECT_EQ(consumer.kind, MediaDeviceConsumerKind::Application);
      EXPECT_TRUE(consumer.feeds.empty());
    }
    auto block =
        PlatformListenerBlock::copy(MakeClosure([](std::uint32_t, const PropertyAddress*) {}));
    ASSERT_EQ(service->addPropertyListenerBlock(device, kConsumers, queue, block), kNoErr);
    EXPECT_EQ(service->removePropertyListenerBlock(device, kConsumers, queue, block), kNoErr);
  }
  testing::DrainQueue(queue);
}

TEST(CoreMediaIOHardwareService, CamerasDoNotKnowTheirConsumers) {
  auto service = CoreMediaIOHardwareService::create();
  const PropertyAddress consumers{kCMIODevicePropertyConsumers, kCMIOObjectPropertyScopeGlobal, 0};
  std::uint32_t size = 0;
  ASSERT_EQ(service->getPropertyDataSize(kCMIOObjectSystemObject, kVideoDevices, 0, nullptr, &size),
            kNoErr);
  std::vector<ObjectID> cameras(size / sizeof(ObjectID));
  ASSERT_EQ(service->getPropertyData(kCMIOObjectSystemObject, kVideoDevices, 0, nullptr, &size,
                                     cameras.data()),
            kNoErr);
  for (const ObjectID camera : cameras) {
    EXPECT_EQ(service->getPropertyDataSize(camera, consumers, 0, nullptr, &size),
              kCMIOHardwareUnknownPropertyError);
    EXPECT_EQ(ReadDeviceConsumers(*service, camera), std::nullopt);
  }
}

TEST(CoreMediaIOHardwareService, BytesUsedComeBackThroughTheInOutSize) {
  auto service = CoreMediaIOHardwareService::create();
  const auto [size, used] = ReadDeviceList(*service, kCMIOObjectSystemObject, kVideoDevices);
  EXPECT_EQ(used, size);
}

TEST(CoreMediaIOHardwareService, RemovalIsRefusedBecauseEveryCallMakesANewBlock) {
  auto service = CoreMediaIOHardwareService::create();
  ExpectRemovalRefused(*service, kCMIOObjectSystemObject, kVideoDevices);
}

}  // namespace
}  // namespace harkwell
