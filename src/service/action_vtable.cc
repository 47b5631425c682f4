#include "service/action_vtable.h"

#include "service/bus_method.h"
#include "service/requests.h"
#include "service/spokesman.h"

using namespace kal;

namespace {

// Argument names as the contract gives them, so introspection matches it.
const sd_bus_vtable kActionRequesting[] = {
    SD_BUS_VTABLE_START(0),
    KAL_BUS_METHOD("HangUpResource", &requests::hangUpResource,
                   SD_BUS_PARAM(serial) SD_BUS_PARAM(token), SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("RestartVMCheckNodeForResource", &requests::restartVMCheckNodeForResource,
                   SD_BUS_PARAM(serial) SD_BUS_PARAM(token) SD_BUS_PARAM(initialGreeting),
                   SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("NextVMCheckMessage", &requests::nextVMCheckMessage,
                   SD_BUS_PARAM(serial) SD_BUS_PARAM(token) SD_BUS_PARAM(audio),
                   SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("BeginVMCheckNodeForResource", &requests::beginVMCheckNodeForResource,
                   SD_BUS_PARAM(serial) SD_BUS_PARAM(token) SD_BUS_PARAM(initialGreeting)
                       SD_BUS_PARAM(interMessageGreeting) SD_BUS_PARAM(special),
                   SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("PerformTRVOnResource", &requests::performTRVOnResource,
                   SD_BUS_PARAM(serial) SD_BUS_PARAM(reason) SD_BUS_PARAM(vlsMode),
                   SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("PlaceCallOnResource", &requests::placeCallOnResource,
                   SD_BUS_PARAM(serial) SD_BUS_PARAM(number) SD_BUS_PARAM(token),
                   SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("UnRegisterMe", &KALSpokesman::unRegisterMe, SD_BUS_PARAM(delegate), ""),
    KAL_BUS_METHOD("ScriptCompletedForResource", &requests::scriptCompletedForResource,
                   SD_BUS_PARAM(serial) SD_BUS_PARAM(token) SD_BUS_PARAM(sequenceNumber)
                       SD_BUS_PARAM(responseAudio),
                   SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("StartScriptNodeForResource", &requests::startScriptNodeForResource,
                   SD_BUS_PARAM(serial) SD_BUS_PARAM(token) SD_BUS_PARAM(choices)
                       SD_BUS_PARAM(responseChoices) SD_BUS_PARAM(prepicking),
                   SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("StopCRNodeForResource", &requests::stopCRNodeForResource, SD_BUS_PARAM(serial),
                   SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("BeginCRNodeForResource", &requests::beginCRNodeForResource,
                   SD_BUS_PARAM(serial) SD_BUS_PARAM(token) SD_BUS_PARAM(recFile)
                       SD_BUS_PARAM(prePlay) SD_BUS_PARAM(postPlay) SD_BUS_PARAM(flags),
                   SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("BeginVMNodeForResource", &requests::beginVMNodeForResource,
                   SD_BUS_PARAM(serial) SD_BUS_PARAM(token) SD_BUS_PARAM(ogm) SD_BUS_PARAM(icm)
                       SD_BUS_PARAM(choices) SD_BUS_PARAM(maxMessageLength) SD_BUS_PARAM(
                           postOGMPause) SD_BUS_PARAM(special) SD_BUS_PARAM(firstCalling),
                   SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("Subscribe", &KALSpokesman::subscribe,
                   SD_BUS_PARAM(delegate) SD_BUS_PARAM(notificationName), ""),
    KAL_BUS_METHOD("LinePreferences", &requests::linePreferences, "", SD_BUS_PARAM(preferences)),
    KAL_BUS_METHOD("SetLinePreferences", &requests::setLinePreferences, SD_BUS_PARAM(preferences),
                   ""),
    KAL_BUS_METHOD("DeviceTypeForResource", &requests::deviceTypeForResource, SD_BUS_PARAM(serial),
                   SD_BUS_PARAM(deviceType)),
    KAL_BUS_METHOD("SetSystemWideDebugLevel", &requests::setSystemWideDebugLevel,
                   SD_BUS_PARAM(level) SD_BUS_PARAM(writeToFile), ""),
    KAL_BUS_METHOD("RedistributeNotification", &KALSpokesman::redistributeNotificationFromClient,
                   SD_BUS_PARAM(name) SD_BUS_PARAM(object) SD_BUS_PARAM(userInfo), ""),
    KAL_BUS_METHOD("CancelDialWithCallbackToken", &requests::cancelDialWithCallbackToken,
                   SD_BUS_PARAM(token), SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("Dial", &requests::dial,
                   SD_BUS_PARAM(digits) SD_BUS_PARAM(serial) SD_BUS_PARAM(callbackToken)
                       SD_BUS_PARAM(waitingForPickup),
                   SD_BUS_PARAM(responseCode)),
    KAL_BUS_METHOD("FullResourceRescan", &requests::fullResourceRescan, "", ""),
    KAL_BUS_METHOD("EnhancedResources", &requests::enhancedResources, "", SD_BUS_PARAM(serials)),
    KAL_BUS_METHOD("Resources", &requests::resources, "", SD_BUS_PARAM(serials)),
    KAL_BUS_METHOD("RegisterApplication", &KALSpokesman::registerApplication,
                   SD_BUS_PARAM(application) SD_BUS_PARAM(vendor) SD_BUS_PARAM(credential)
                       SD_BUS_PARAM(delegate) SD_BUS_PARAM(secondaryConnection)
                           SD_BUS_PARAM(protocolVersion),
                   SD_BUS_PARAM(responseCode)),
    SD_BUS_VTABLE_END,
};

}  // namespace

const sd_bus_vtable* action_requesting_vtable() {
    return kActionRequesting;
}

bool is_action_requesting_method(std::string_view member) {
    for (const auto& entry : kActionRequesting)
        if (entry.type == _SD_BUS_VTABLE_METHOD && member == entry.x.method.member)
            return true;
    return false;
}
