// A stand-in for the daemon on a free loopback port, for the client library's and varnoch-flash's
// tests: it greets one client as the daemon does, plays a script and records the client's packets.
#pragma once

#include <thread>

#include "TestClient.h"

namespace fakedaemon {

using Packet = WirePacket;

class FakeDaemon {
  public:
    // Listens at once; a client's connection completes in the backlog even before serve().
    FakeDaemon();
    // Ends the listener and the served connection (see finish()).
    ~FakeDaemon();
    FakeDaemon(const FakeDaemon&) = delete;
    FakeDaemon& operator=(const FakeDaemon&) = delete;

    int port() const { return port_; }
    // Accepts one client on a thread of its own, sends the identity (pid 1234, "varnoch", "0.00a",
    // "Dev-trunk 1901-01-01 00:00:00 UTC"), then plays `script`, words separated by blanks:
    //   S or S/P   status record: mode 1, state S, progress P (0), address 0x26, identifier 0x12345678
    //   id         an identity packet (pid 42, "varnoch", "1", "t"), as when another client comes
    //   await:C    reads the client's packets until one with command C
    //   echo       reads until an echo request, sends status 1 and then the reply
    //   ~MS        pauses MS milliseconds
    //   bad        a header whose length is 4
    //   .          keeps the connection open, silent, until the client closes it
    // Without . the script ends by closing the sending side and reading until the client closes.
    void serve(const std::string& script);
    // Waits for the served connection to end; the client's packets in order.
    const std::vector<Packet>& finish();
    // The commands of finish(), e.g. "1001 1004 1001".
    std::string commands();

  private:
    void play(TestClient& connection, const std::string& script);
    // Records the client's packets until one of `command` (true) or the end of the stream.
    bool readUntil(TestClient& connection, int command);

    int port_ = 0;
    int listener_ = -1;
    std::thread thread_;
    std::vector<Packet> received_;
};

}  // namespace fakedaemon
