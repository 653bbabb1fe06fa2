// The in-memory platform behind the simulated audio and video services: objects with properties,
// set from tests, demos and benchmarks. Everything a real platform can do to the library can be
// staged here: any call can fail with a chosen status ("!obj" included), a string property can be a
// null reference, a data size can be odd, and every call is recorded with its arguments. Changing
// a property runs the listeners registered for it, each on its own queue.
//
// All members may be called from any thread. Listener blocks and the call hook are run without the
// graph's lock held, so they may call back into the graph.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/ListenerBlock.h"
#include "HarkwellFoundation/Platform/Mutex.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"
#include "HarkwellFoundation/Platform/PropertyValue.h"

namespace harkwell {

enum class SimulatedCallKind {
  GetPropertyDataSize,
  GetPropertyData,
  SetPropertyData,
  HasProperty,
  AddPropertyListener,
  RemovePropertyListener,
};

// One call the service received, and what it answered.
struct HARKWELL_EXPORT SimulatedCall {
  SimulatedCallKind kind{};
  ObjectID object = 0;
  PropertyAddress address;
  std::uint32_t qualifierDataSize = 0;
  std::uint32_t dataSize = 0;                    // the size passed in (0 for a size query)
  std::vector<std::uint8_t> data;                // the bytes passed to a set
  std::shared_ptr<DispatchQueue> queue;          // listener calls
  const PlatformListenerBlock* block = nullptr;  // listener calls: the block's identity
  const PropertyListener* closure = nullptr;     // listener calls: the wrapped closure
  OSStatus status = 0;
};

// The value of one property.
class HARKWELL_EXPORT SimulatedPropertyValue {
 public:
  using Translation = std::map<std::uint32_t, std::optional<std::string>>;

  static SimulatedPropertyValue UInt32(std::uint32_t value);
  static SimulatedPropertyValue Int32(std::int32_t value);
  // A string property; std::nullopt is read as a null reference.
  static SimulatedPropertyValue String(std::optional<std::string> text);
  static SimulatedPropertyValue IDList(std::vector<std::uint32_t> ids);
  static SimulatedPropertyValue Bytes(std::vector<std::uint8_t> bytes);
  // A translation property read with an AudioValueTranslation record: the 4-byte input is looked
  // up, and the output receives a string reference (null when the entry is std::nullopt or absent).
  static SimulatedPropertyValue TranslationTable(Translation table);

  // The data size the size query answers, instead of the value's natural size.
  SimulatedPropertyValue withReportedSize(std::uint32_t size) const;

  std::uint32_t reportedSize() const;
  std::optional<std::uint32_t> asUInt32() const;
  std::optional<std::int32_t> asInt32() const;
  std::optional<std::optional<std::string>> asString() const;
  std::optional<std::vector<std::uint32_t>> asIDList() const;

 private:
  friend class SimulatedObjectGraph;
  explicit SimulatedPropertyValue(PropertyValue value) : value_(std::move(value)) {}
  PropertyValue value_;
  std::optional<std::uint32_t> reportedSize_;
};

// Which calls fail, and with what status. Empty fields match anything.
struct HARKWELL_EXPORT SimulatedFailure {
  std::optional<SimulatedCallKind> kind;
  std::optional<ObjectID> object;
  std::optional<std::uint32_t> selector;
  std::optional<std::uint32_t> scope;
  OSStatus status = 0;
  // How many matching calls fail before the rule is used up; negative means forever.
  int count = -1;
};

// How a removal finds its registration.
enum class ListenerMatching {
  ByBlockIdentity,   // like the platform: a block made anew for the removal never matches
  ByWrappedClosure,  // a removal matches the registration whose block wraps the same closure
};

class HARKWELL_EXPORT SimulatedObjectGraph {
 public:
  SimulatedObjectGraph();
  SimulatedObjectGraph(const SimulatedObjectGraph&) = delete;
  SimulatedObjectGraph& operator=(const SimulatedObjectGraph&) = delete;
  virtual ~SimulatedObjectGraph() = default;

  // --- Objects and properties -----------------------------------------------------------------
  // Creates the object if needed. Listeners of the address run when `notify` is true.
  void setProperty(ObjectID object, const PropertyAddress& address, SimulatedPropertyValue value,
                   bool notify = true);
  void removeProperty(ObjectID object, const PropertyAddress& address);
  std::optional<SimulatedPropertyValue> property(ObjectID object,
                                                 const PropertyAddress& address) const;
  // An object that exists answers "who?" for a property it lacks; a missing object answers the
  // bad-object status for everything.
  void addObject(ObjectID object);
  void removeObject(ObjectID object);
  bool hasObject(ObjectID object) const;

  // Runs the listeners registered for exactly this object and address, each on its queue.
  void notifyPropertyChanged(ObjectID object, const PropertyAddress& address);

  // --- Failures and hooks -----------------------------------------------------------------------
  void addFailure(SimulatedFailure failure);
  void clearFailures();
  // Called before every call is answered, with the call as received; a hook may change the graph
  // (remove a device mid-read, say). Empty removes the hook.
  void setCallHook(std::function<void(const SimulatedCall&)> hook);

  // --- Listeners -------------------------------------------------------------------------------
  void setListenerMatching(ListenerMatching matching);
  std::size_t listenerCount() const;
  std::size_t listenerCount(ObjectID object, const PropertyAddress& address) const;

  // --- Call record -------------------------------------------------------------------------------
  std::vector<SimulatedCall> calls() const;
  void clearCalls();
  // Long runs (soak tests, demos) switch the record off to keep memory flat.
  void setRecordingCalls(bool recording);

 protected:
  OSStatus handleGetPropertyDataSize(ObjectID object, const PropertyAddress& address,
                                     std::uint32_t qualifierDataSize, std::uint32_t* outDataSize);
  OSStatus handleGetPropertyData(ObjectID object, const PropertyAddress& address,
                                 std::uint32_t qualifierDataSize, std::uint32_t* ioDataSize,
                                 void* outData);
  OSStatus handleSetPropertyData(ObjectID object, const PropertyAddress& address,
                                 std::uint32_t qualifierDataSize, std::uint32_t dataSize,
                                 void* data);
  bool handleHasProperty(ObjectID object, const PropertyAddress& address);
  OSStatus handleAddListener(ObjectID object, const PropertyAddress& address,
                             std::shared_ptr<DispatchQueue> queue, PlatformListenerBlockRef block);
  OSStatus handleRemoveListener(ObjectID object, const PropertyAddress& address,
                                std::shared_ptr<DispatchQueue> queue,
                                PlatformListenerBlockRef block);

 private:
  struct AddressKey {
    ObjectID object;
    std::uint32_t selector, scope, element;
    auto operator<=>(const AddressKey&) const = default;
  };
  struct Listener {
    AddressKey key;
    std::shared_ptr<DispatchQueue> queue;
    PlatformListenerBlockRef block;
  };

  static AddressKey keyFor(ObjectID object, const PropertyAddress& address) {
    return {object, address.mSelector, address.mScope, address.mElement};
  }
  // Runs the hook, then returns the status of the first failure rule the call matches.
  std::optional<OSStatus> injectedFailure(const SimulatedCall& call);
  OSStatus record(SimulatedCall call, OSStatus status);
  std::optional<OSStatus> checkObjectAndPropertyLocked(ObjectID object,
                                                       const PropertyAddress& address) const
      HARKWELL_REQUIRES(mutex_);
  void notifyListeners(const std::vector<Listener>& listeners, const PropertyAddress& address);
  std::vector<Listener> listenersForLocked(const AddressKey& key) const HARKWELL_REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::map<ObjectID, std::map<AddressKey, SimulatedPropertyValue>> objects_
      HARKWELL_GUARDED_BY(mutex_);
  std::vector<Listener> listeners_ HARKWELL_GUARDED_BY(mutex_);
  std::vector<SimulatedFailure> failures_ HARKWELL_GUARDED_BY(mutex_);
  std::vector<SimulatedCall> calls_ HARKWELL_GUARDED_BY(mutex_);
  bool recordingCalls_ HARKWELL_GUARDED_BY(mutex_) = true;
  ListenerMatching matching_ HARKWELL_GUARDED_BY(mutex_) = ListenerMatching::ByWrappedClosure;
  std::shared_ptr<const std::function<void(const SimulatedCall&)>> hook_
      HARKWELL_GUARDED_BY(mutex_);
};

}  // namespace harkwell
