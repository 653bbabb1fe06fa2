// Property listeners at the seam. A listener record keeps its closure as a shared, immutable
// PropertyListener so that copies of the record refer to one closure. The service is handed a
// PlatformListenerBlock: a heap object made anew at every add and every remove, wrapping that
// closure, as the platform's blocks are. A service that matches removals by block identity never
// matches (the remove's block is always new); one that matches by the wrapped closure does.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell {

// Called with the number of changed addresses and a pointer to them.
using PropertyListener = std::function<void(std::uint32_t, const PropertyAddress*)>;
using SharedPropertyListener = std::shared_ptr<const PropertyListener>;

class HARKWELL_EXPORT PlatformListenerBlock {
 public:
  // A new block wrapping `closure` (the equivalent of copying a block to the heap).
  static std::shared_ptr<PlatformListenerBlock> copy(SharedPropertyListener closure) {
    return std::shared_ptr<PlatformListenerBlock>(new PlatformListenerBlock(std::move(closure)));
  }

  PlatformListenerBlock(const PlatformListenerBlock&) = delete;
  PlatformListenerBlock& operator=(const PlatformListenerBlock&) = delete;

  // The closure this block wraps; two blocks made from one record share it.
  const SharedPropertyListener& closure() const { return closure_; }

  void operator()(std::uint32_t count, const PropertyAddress* addresses) const {
    (*closure_)(count, addresses);
  }

 private:
  explicit PlatformListenerBlock(SharedPropertyListener closure) : closure_(std::move(closure)) {}
  SharedPropertyListener closure_;
};

using PlatformListenerBlockRef = std::shared_ptr<PlatformListenerBlock>;

}  // namespace harkwell
