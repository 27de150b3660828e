// The shipping notifier: the client's callback service.
#include "daemon/IKestNetworkProbeMonCallback.h"
#include "interfaces/InterfaceSeams.h"

namespace probemond::ifaces {

namespace {

class CallbackNotifier : public AutoSelectNotifier {
public:
    int32_t notify(const std::string& iface) override {
        return android::IKestNetworkProbeMonCallback::notify(iface);
    }
};

}  // namespace

AutoSelectNotifier& defaultNotifier() {
    static auto* notifier = new CallbackNotifier;
    return *notifier;
}

}  // namespace probemond::ifaces
