#pragma once

#include "Common/Handles.h"

namespace Zonectl {

/// liblxc cannot look at a container without making lock files below /run and waiting for whoever holds them,
/// and complains on standard error of what it cannot load. As long as this object lives the calling thread
/// has a /run of its own, which is gone afterwards, and the complaints go nowhere. Where the kernel does not
/// permit that, all is as ever.
class QuietCorner
{
public:
    QuietCorner();
    ~QuietCorner();
    QuietCorner(const QuietCorner&) = delete;
    QuietCorner& operator=(const QuietCorner&) = delete;

private:
    ZoneCore::UniqueFd mounts;    ///< the namespace to come back to
    ZoneCore::UniqueFd directory; ///< as is the working directory
    ZoneCore::UniqueFd errors;    ///< the standard error output
};

} // namespace Zonectl
