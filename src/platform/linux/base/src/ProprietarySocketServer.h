// TCP server with a fixed number of client slots: accepts local (or, with global access, any) clients,
// answers echo requests, announces the program's identity on each connect and hands every other packet
// to handleNewPacketFromClient, which the application overrides.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "ProprietarySocketCommon.h"
#include "threadfunc.h"

class ProprietarySocketServer : public ProprietarySocketCommon {
  public:
    // Pause between looks for a free slot while all are in use, and the least time between reports.
    static constexpr std::int32_t kFullSlotsPollMs = 50;
    static constexpr std::int32_t kFullSlotsReportMs = 1000;

    // Not listening yet; `slotCount` clients can be served at once.
    ProprietarySocketServer(int port, int slotCount);
    // Stops the server (see stopServer) and destroys the slots.
    ~ProprietarySocketServer() override;

    // Binds (loopback only unless `globalAccess`), listens and starts the accept thread; returns its
    // handle. Ends the process with exit status 1 when no address can be bound.
    virtual threadfunc::ThreadHandle startServer(bool globalAccess);
    // Makes startServer serve `fd`, a socket bound already (one a service manager passed in), instead
    // of binding: its address and port hold, `globalAccess` is not used. Call before startServer.
    void useListeningSocket(int fd);
    // Called on the client's handler thread for every packet but echo; null the pointer to keep the
    // packet, otherwise the server deletes it afterwards. Empty here.
    virtual void handleNewPacketFromClient(int clientIndex, TPacket*& packet);
    // Called on the client's handler thread once the client is installed; prints a line here.
    virtual void clientConnected(int clientIndex);
    // Called on the client's handler thread after its connection closed, with the slot's mutex held:
    // an override must not send to clients from here. Prints a line here.
    virtual void clientDisconnected(int clientIndex);

    // Queues the packet for one client, or for every client with a negative index (the first active
    // client gets the packet, the others copies). Takes the packet over in every case: the caller's
    // pointer is queued or deleted and must not be used again. A null pointer is ignored.
    void sendToClient(int clientIndex, TPacket*& packet);
    // Sends a 2-byte payload holding `value` little-endian.
    void sendValue(int clientIndex, std::uint16_t command, std::uint16_t value);
    // True for every CmdEcho packet; a request is answered in place (the pointer is taken over).
    bool handleEcho(int clientIndex, TPacket*& packet);
    // Sends the program's identity to every connected client.
    void sendIdentity();

    // Connected clients.
    int clientCount() const;
    // Port actually bound by startServer (differs from the constructor's port only for port 0); 0 before.
    int boundPort() const;
    int port() const { return port_; }
    int slotCount() const { return slotCount_; }

    // Stops accepting, ends every client connection and joins all threads; idempotent. A derived class
    // calls it first in its destructor, so that no handler runs on a half-destroyed object.
    void stopServer();

  private:
    struct TClientSlot {
        int index = 0;
        std::atomic<bool> active{false};
        std::atomic<bool> reserved{false};  // never set here; a reserved slot is not offered
        TConnection connection;             // guarded by slotMutex
        sockaddr_storage peerAddress{};     // wide enough for IPv6 peers too
        socklen_t peerAddressLength = 0;
        ProprietarySocketServer* server = nullptr;
        PacketQueue receiveQueue{kQueueCapacity};
        PacketQueue sendQueue{kQueueCapacity};
        std::atomic<threadfunc::ThreadHandle> handlerThread{0};
        threadfunc::mutex slotMutex;  // guards active changes, connection and pushes into sendQueue
        // The connected socket as stopServer may shut it down; -1 before it is closed. Its own lock,
        // never held while waiting, because slotMutex may be held by a push that waits for ever.
        std::mutex socketGuard;
        int liveSocket = -1;
    };

    TClientSlot& slotAt(int index) const { return slots_[static_cast<std::size_t>(index)]; }
    static std::uint32_t acceptThreadEntry(void* argument);
    static std::uint32_t clientThreadEntry(void* argument);
    // Resolves and binds the port, loopback only unless `globalAccess`; ends the process on failure.
    int bindListeningSocket(bool globalAccess);
    // The port `fd` is bound to; -1 when it is no IPv4 or IPv6 socket.
    static int localPort(int fd);
    // The accept loop.
    void waitForClient();
    // The lowest slot neither active nor reserved; null when all are taken.
    TClientSlot* freeSlot() const;
    // The all-slots-in-use line, at most once per kFullSlotsReportMs.
    void reportFullSlots(std::int32_t& lastFullReport) const;
    // Starts the threads of an accepted connection in `slot`; gives the connection up if they fail.
    void installClient(TClientSlot& slot, int fd);
    // The handler loop of one connected slot.
    void clientThread(TClientSlot& slot);
    // Deletes what is left in the slot's queues.
    static void drainQueues(TClientSlot& slot);
    // Withdraws the slot's socket from stopServer's reach.
    static void forgetLiveSocket(TClientSlot& slot);
    // Ends a connection whose threads could not all be started; the slot stays free.
    static void abandonConnection(TClientSlot& slot);

    std::atomic<threadfunc::ThreadHandle> acceptThread_{0};
    std::atomic<int> listeningSocket_{-1};
    int passedSocket_ = -1;  // set before startServer, read by it
    int port_;
    int slotCount_;
    std::unique_ptr<TClientSlot[]> slots_;
    std::atomic<int> clientCount_{0};
    std::atomic<int> boundPort_{0};
};
