#pragma once
// External storage of impulse responses, implemented by the host: records keep only the identifier
// of their impulse response and look it up here, so that copies and snapshots of a record share one
// vector instead of duplicating it.

#include "math/VELTRealVector.h"

#include <cstdint>
#include <memory>
#include <string>

namespace tavolar {

// The host's store of impulse responses, keyed by a record's impulseUUID. Records hold it weakly.
// Graph calculations read it from worker threads, so an implementation must allow impulseWithUUID
// to run on several threads at once and beside setImpulse.
class ImpulseCache {
public:
    virtual ~ImpulseCache() = default;

    // Stores impulse (which may be null, to forget an entry) under uuid, measured at sampleRate Hz.
    virtual void setImpulse(std::shared_ptr<const VELTRealVector> impulse, const std::string& uuid,
                            std::int64_t sampleRate) = 0;
    // The vector stored under uuid, or null.
    virtual std::shared_ptr<const VELTRealVector> impulseWithUUID(const std::string& uuid) const = 0;
};

} // namespace tavolar
