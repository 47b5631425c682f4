// Registration, subscriptions and forgetting clients.

#include <sstream>

#include "log/kallog.h"
#include "service/bus_contract.h"
#include "service/kal_errors.h"
#include "service/spokesman.h"
#include "service/vocabulary.h"

using namespace kal;

namespace {

bool accepts_version(const std::string& version) {
    std::istringstream words(kal_AcceptedProtocolVersions);
    std::string word;
    while (words >> word)
        if (word == version)
            return true;
    return false;
}

const char* or_null(const OptString& s) {
    return s ? s->c_str() : "(null)";
}

}  // namespace

std::string KALSpokesman::registerApplication(const Caller& caller, const OptString& application,
                                              const OptString& vendor, const OptString&,
                                              const ObjectPath& delegate, bool secondaryConnection,
                                              const OptString& protocolVersion) {
    try {
        if (!application || !vendor || delegate.isNil() || !protocolVersion) {
            kallog(KAL_WARN,
                   "Ignoring request to add invalid listener application %s from vendor %s",
                   or_null(application), or_null(vendor));
            return kal_ResponseCode_ERR_MalformedRequest;
        }
        kallog(KAL_DEBUG,
               "Request to add listener application %s from vendor %s with protocol version %s",
               application->c_str(), vendor->c_str(), protocolVersion->c_str());
        if (!accepts_version(*protocolVersion))
            RaiseKALException(
                "The version of the application you are running (" + *protocolVersion +
                    ") is not one of the versions supported by the Orvane system services "
                    "currently installed (KALSpokesman accepts: " +
                    kal_AcceptedProtocolVersions + ").",
                kal_ErrorInvalidSoftwareVersion);

        const Proxy proxy{caller.sender, delegate.path};
        registry_.registerProxy(proxy, secondaryConnection);
        // Named by what it told us: asking it for its identification would be
        // a call to the client in the middle of its own request.
        kallog(KAL_DEBUG, "Captured remote %s: %s (%s: %s)",
               secondaryConnection ? "secondary" : "delegate", application->c_str(),
               caller.sender.c_str(), delegate.path.c_str());
        kallog(KAL_DEVEL, "Registration dict: %s", registry_.registrationDescription().c_str());
        if (secondaryConnection && !ping_timer_)
            startPingTimer();
        return kal_ResponseCode_OK;
    } catch (const KALException& e) {
        kallog(KAL_ERR,
               "Exception occurred in registerApplication:ofVendor:onPortName:withCredential: %s "
               "userInfo: %s",
               e.reason().c_str(), e.userInfoDescription().c_str());
        if (e.isKALException())
            throw;
        return kal_ResponseCode_ERR_InternalError;
    } catch (const std::exception& e) {
        kallog(KAL_ERR,
               "Exception occurred in registerApplication:ofVendor:onPortName:withCredential: %s "
               "userInfo: %s",
               e.what(), "null userinfo");
        return kal_ResponseCode_ERR_InternalError;
    }
}

void KALSpokesman::subscribe(const Caller& caller, const ObjectPath& delegate,
                             const OptString& notificationName) {
    const std::string name = notificationName.value_or("");
    const Proxy proxy{caller.sender, delegate.path};
    if (registry_.subscribe(proxy, name))
        kallog(KAL_DEBUG, "Creating subscriptions array for message '%s'", name.c_str());
    // Names posted in-process under their own name (a redistributed one, the
    // debug-level broadcast) reach the forwarder too.
    observe(name);
    kallog(KAL_DEBUG,
           "Added distant object %s to subscription array for '%s'. New subscriptions dict: \n%s",
           proxy.describe().c_str(), name.c_str(), subscriptionDescription().c_str());
}

void KALSpokesman::unRegisterMe(const Caller& caller, const ObjectPath&) {
    kallog(KAL_DEBUG, "Received unregistration request. Cancelling connection.");
    // A client's connection cannot be closed from here. Its proxies stay
    // listed until the next delivery or ping to them, which fails as if the
    // connection had gone and unregisters them then.
    registry_.cancelConnection(caller.sender);
    links_->forgetConnection(caller.sender);
}

void KALSpokesman::unregisterDistantObject(const Proxy& proxy, const std::string& reason) {
    // A copy: `proxy` may belong to the lists it is removed from.
    const Proxy gone = proxy;
    kallog(KAL_INFO, "Removing distant object %s due to %s", gone.describe().c_str(),
           reason.c_str());
    registry_.unregister(gone);
    links_->forget(gone);
    kallog(KAL_INFO, "Done removing distant object");
    kallog(KAL_DEVEL, "Registration dict: %s", registry_.registrationDescription().c_str());
    kallog(KAL_DEVEL, "Subscription dict: \n%s", subscriptionDescription().c_str());
}

void KALSpokesman::unregisterObjectsForConnectionHash(const std::string& sender,
                                                      const std::string& reason) {
    if (const Proxy* proxy = registry_.proxyForConnection(sender))
        unregisterDistantObject(*proxy, reason);
}
