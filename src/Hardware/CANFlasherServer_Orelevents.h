// The flasher server the daemon runs: it routes its three notifications into the application event
// queue, so that uploads start, and the daemon stops, on the main thread.
#pragma once

#include "CANFlasherServer.h"

namespace CANFlasher {

class CANFlasherServer_Orelevents : public CANFlasherServer {
  public:
    using CANFlasherServer::CANFlasherServer;
    /// Stops the socket server first, while this object's hooks are still whole.
    ~CANFlasherServer_Orelevents() override;

    /// Posts EventStartUpload; the main thread then runs CANFlasherServer::startUpload.
    void startUpload() override;
    /// Posts EventNoClientsLeft.
    void allClientsGone() override;
    /// Posts EventExitWhenIdle; the arguments are not needed.
    void exitWhenIdleRequested(int clientIndex, int commandOffset, const std::uint8_t* payload) override;
};

}  // namespace CANFlasher
