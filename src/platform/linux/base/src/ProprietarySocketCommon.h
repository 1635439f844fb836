// The client packet protocol: the self-delimiting packet of the TCP stream (8-byte big-endian header,
// then the payload), its framing on a socket, and the two threads that move packets of one connection.
#pragma once

#include <cstdint>
#include <string>

#include "threadfunc.h"
#include "varnoch/protocol/Packet.h"

class ProprietarySocketCommon {
  public:
    // The packet layer's commands, echo bytes and sizes, under the names this class has always given
    // them.
    static constexpr std::uint16_t CmdEcho = varnoch::protocol::CmdEcho;
    static constexpr std::uint16_t CmdIdentity = varnoch::protocol::CmdIdentity;
    static constexpr std::uint8_t EchoRequest = varnoch::protocol::EchoRequest;
    static constexpr std::uint8_t EchoReply = varnoch::protocol::EchoReply;
    static constexpr std::uint32_t kHeaderSize = varnoch::protocol::kHeaderSize;
    static constexpr std::uint32_t kMaxPacketSize = varnoch::protocol::kMaxPacketSize;

    // Packets each connection queue holds before a pusher waits.
    static constexpr std::uint32_t kQueueCapacity = 100;
    // Priority of every connection and server thread (threadfunc scale).
    static constexpr int kThreadPriority = 20;

    // One packet, held as on the wire (header included). Whoever holds the pointer owns it.
    class TPacket {
      public:
        // Empty packet to receive into.
        TPacket();
        // Packet with an unfilled payload of `payloadLength` bytes and the header written; on a failed
        // allocation data stays null and size, command and headerSize are 0.
        TPacket(std::uint32_t payloadLength, std::uint16_t command);
        // Deep copy (one packet broadcast to several clients).
        TPacket(const TPacket& other);
        TPacket& operator=(const TPacket&) = delete;
        virtual ~TPacket();

        // size - headerSize.
        std::uint32_t getPayloadSize() const;
        std::uint16_t getCommand() const;
        // data + headerSize.
        std::uint8_t* getPayload();
        const std::uint8_t* getPayload() const;
        // Prints every payload byte on standard output, one line each.
        void dump() const;

        std::uint8_t* data = nullptr;  // whole packet as on the wire; null when empty
        std::uint32_t size = 0;        // bytes in data (= the wire length field)
        std::uint16_t command = 0;     // host order
        std::uint16_t headerSize = kHeaderSize;
    };

    using PacketQueue = threadfunc::queue_template<TPacket*>;

    // One connected socket's machinery; handles 0 and socket -1 when none.
    struct TConnection {
        threadfunc::ThreadHandle receptionThread = 0;
        threadfunc::ThreadHandle sendingThread = 0;
        int socket = -1;
    };

    // A peer's identity as a receiving side keeps it.
    struct TPeerIdentity {
        std::int32_t pid = 0;
        std::string processName;
        std::string description;
        std::string reserved;  // not read by any operation here
        std::string versionText;
        std::string buildTag;
    };

    // compareIdentity mask bits: a set bit leaves the field out.
    enum : std::uint32_t { IgnorePid = 1, IgnoreProcessName = 2, IgnoreVersionText = 4, IgnoreBuildTag = 8 };

    ProprietarySocketCommon() = default;
    virtual ~ProprietarySocketCommon();
    ProprietarySocketCommon(const ProprietarySocketCommon&) = delete;
    ProprietarySocketCommon& operator=(const ProprietarySocketCommon&) = delete;

    // Reads exactly `length` bytes; returns `length`, or 0 on end of stream, error or a length of 0.
    static std::uint32_t receiveChunk(int fd, void* buffer, std::uint32_t length);
    // Reads one whole packet into `packet`; false on end of stream, error or an impossible length.
    [[nodiscard]] static bool receivePacket(TPacket& packet, int fd);
    // Sends the whole packet in one call; false when not every byte went out.
    [[nodiscard]] static bool sendPacket(const TPacket& packet, int fd);
    // Starts the reception and sending threads of `fd`; a handle that could not be started is 0.
    TConnection openConnection(int fd, PacketQueue* sendQueue, PacketQueue* receiveQueue);
    // Shuts the socket down, joins both threads and closes it; nothing for a closed connection.
    static void closeConnection(TConnection& connection);

    // Stores the name and the matching description (empty for unknown names).
    static void setProcessName(TPeerIdentity& identity, const std::string& name);
    // True when every field not masked out is equal; the description is never compared.
    static bool compareIdentity(const TPeerIdentity& a, const TPeerIdentity& b, std::uint32_t ignoreMask);

    // Builds the CmdIdentity packet (varnoch::protocol::encodeIdentity). Null when allocation fails.
    static TPacket* buildIdentityPacket(std::uint32_t pid, const std::string& processName,
                                        const std::string& versionText, const std::string& buildTag);
};
