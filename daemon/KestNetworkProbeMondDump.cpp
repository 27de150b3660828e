#include "daemon/KestNetworkProbeMondDump.h"

#include <sstream>

#include "netctl/IptablesRuleManager.h"

namespace probemond {
namespace {

const char* orNone(const std::string& s) { return s.empty() ? "(none)" : s.c_str(); }

}  // namespace

std::string formatState(const InterfaceManagerSnapshot& state, const std::vector<std::string>& uids) {
    std::ostringstream out;
    out << "interfaces (" << state.interfaces.size() << "):\n";
    for (const InterfaceSnapshot& i : state.interfaces) {
        out << "  " << i.name << " fwmark=" << i.fwmark << " prio=" << i.prio
            << " server=" << orNone(i.pingServer) << " running=" << i.isPingThreadRunning
            << " suspended=" << i.isPingThreadSuspended << " alive=" << i.isPingThreadAlive
            << " auto=" << i.isControlByAutoSelect << " wifi=" << i.isWifi << " rtt=" << i.rtt
            << " mrtt=" << i.mrtt << " switch=" << i.switchCount << " history=[";
        for (size_t k = 0; k < i.rttHistory.size(); ++k) out << (k ? " " : "") << i.rttHistory[k];
        out << "]\n";
    }
    out << "userSelectIface: " << orNone(state.userSelectIface) << "\n";
    out << "autoSelectIface: " << orNone(state.autoSelectIface) << "\n";
    out << "autoSelect: enabled=" << state.isAutoSelectEnabled << " forcePing=" << state.isAutoSelectForcePing
        << " rttDebug=" << state.rttDebug << "\n";
    out << "steered uids (" << uids.size() << "):";
    for (const std::string& uid : uids) out << " " << uid;
    out << "\n";
    return out.str();
}

std::string formatState() {
    return formatState(InterfaceManager::instance()->snapshot(), IptablesRuleManager::instance()->uidListSnapshot());
}

}  // namespace probemond
