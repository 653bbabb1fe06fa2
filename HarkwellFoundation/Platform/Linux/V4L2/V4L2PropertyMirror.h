// The V4L2 service's published state, in the video seam's terms: the system object (1) with its
// device list and screen-capture switch, and one object per camera with its properties. Reads
// answer from here under a short lock and check buffers as the platform does; the service's
// background thread replaces the devices and learns which property addresses changed, so it can
// notify exactly the listeners of values that really changed.
//
// Any thread may call any member.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/Mutex.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"
#include "HarkwellFoundation/Platform/PropertyValue.h"

namespace harkwell::v4l2 {

// One device as the seam shows it.
struct PublishedDevice {
  ObjectID deviceID = 0;
  std::string name;
  std::string uid;
  std::optional<std::string> modelUID;  // absent: read as a null string reference
  std::uint32_t transportType = 0;
  std::uint32_t inputStreamCount = 0;
  std::uint32_t outputStreamCount = 0;
  bool isRunningSomewhere = false;
  // The processes holding its nodes (CameraConsumers.h), answered as the consumers property.
  std::vector<MediaDeviceConsumer> consumers;

  friend bool operator==(const PublishedDevice&, const PublishedDevice&) = default;
};

class PropertyMirror {
 public:
  // Replaces the devices (in any order; they are kept in ID order) and returns what changed:
  // first each surviving device's changed properties, then the system object's device list when
  // a device came or went.
  std::vector<PropertyChange> publishDevices(std::vector<PublishedDevice> devices);

  // The seam's reads and writes. Statuses as the platform's: "!obj" for an unknown object, "who?"
  // for a property the object lacks (hog mode included), "!siz" for a buffer too small, "nope"
  // for writing a read-only property. A write that changes a value appends it to `changes`.
  OSStatus dataSize(ObjectID object, const PropertyAddress& address,
                    std::uint32_t* outDataSize) const;
  OSStatus data(ObjectID object, const PropertyAddress& address, std::uint32_t* ioDataSize,
                void* outData) const;
  OSStatus setData(ObjectID object, const PropertyAddress& address, std::uint32_t dataSize,
                   const void* data, std::vector<PropertyChange>* changes);
  // kNoErr when `object` exists now and has the property; otherwise the read's status.
  OSStatus checkProperty(ObjectID object, const PropertyAddress& address) const;

  // The stream IDs listed for a device: opaque numbers, not objects of the service, and never
  // equal to a device ID or the system object's ID.
  static std::uint32_t streamID(ObjectID deviceID, std::uint32_t stream);

 private:
  const PublishedDevice* findLocked(ObjectID deviceID) const HARKWELL_REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::vector<PublishedDevice> devices_ HARKWELL_GUARDED_BY(mutex_);  // ordered by deviceID
  std::uint32_t screenCaptureSwitch_ HARKWELL_GUARDED_BY(mutex_) = 1;
};

}  // namespace harkwell::v4l2
