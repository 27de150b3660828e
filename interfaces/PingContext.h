// What a ping worker reads of the rest of the daemon: the auto-select
// engine's hint and the kinds of the two selections.
#pragma once

namespace probemond {

class PingContext {
public:
    virtual ~PingContext() = default;
    // Every auto-select candidate is to probe, cellular ones twice as often.
    virtual bool isAutoSelectForcePing() const = 0;
    // Whether the user's / auto-select's interface is cellular.
    virtual bool isUserSelectData() = 0;
    virtual bool isAutoSelectData() = 0;
};

}  // namespace probemond
