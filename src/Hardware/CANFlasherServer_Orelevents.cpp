#include "CANFlasherServer_Orelevents.h"

#include "EventQueue.h"

namespace CANFlasher {

namespace {
// Every producer in the daemon posts on the one priority level.
constexpr std::int32_t kEventKey = 0;
}  // namespace

CANFlasherServer_Orelevents::~CANFlasherServer_Orelevents() {
    stopServer();
}

// The results of postEvent are ignored: key 0 is never refused.
void CANFlasherServer_Orelevents::startUpload() {
    (void)postEvent(kEventKey, EventStartUpload, 0);
}

void CANFlasherServer_Orelevents::allClientsGone() {
    (void)postEvent(kEventKey, EventNoClientsLeft, 0);
}

void CANFlasherServer_Orelevents::exitWhenIdleRequested(int /*clientIndex*/, int /*commandOffset*/,
                                                        const std::uint8_t* /*payload*/) {
    (void)postEvent(kEventKey, EventExitWhenIdle, 0);
}

}  // namespace CANFlasher
