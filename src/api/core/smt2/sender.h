#pragma once

#include "smt2/bufferpool.h"
#include "smt2/error.h"
#include "smt2/future.h"
#include "smt2/transportchannel.h"

#include <functional>
#include <memory>

namespace smt2 {

// The protocol version this sender offers in its handshake.
inline constexpr std::uint16_t ProtocolVersion = 1;

// The sending end of an smt2 connection: connection, handshake and an ordered queue of
// messages over one TransportChannel.
//
// Threads: every public function may be called from any thread. Handlers and future
// continuations run on the channel's loop thread (or inline, for a future that is already
// complete). A handler may call connect() and disconnect(). The channel and its loop must
// outlive the sender; the destructor disconnects without calling the state handler.
class Sender
{
public:
    enum State { Disconnected = 0, Connecting = 1, Handshaking = 2, Streaming = 3 };

    explicit Sender(BufferPool* pool);
    virtual ~Sender();
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    // Set before connect(); the channel is not owned.
    void setTransportChannel(TransportChannel& channel);
    // Set before connect(). Called with (old, new) on every state change, on the loop thread.
    void onStateChange(std::function<void(State, State)> handler);
    // Set before connect(). Called when the receiver refuses the handshake; the connection is
    // left in Handshaking until disconnect() or until the receiver hangs up.
    void onHandshakeFailed(std::function<void(Error)> handler);

    // Connects and shakes hands. Completes with Success once Streaming is reached (after the
    // state handler reported it), or with the reason it failed.
    Future<ErrorID> connect();
    // Closes the connection: the message being written completes with Disconnected, queued ones
    // with NotConnected (a queued sequence info is kept, with Success). Returns once the state is
    // Disconnected (called on the loop thread: at once).
    void disconnect();

    // The current state; thread-safe.
    State state() const;

protected:
    // Queues a message of the wire protocol's type (docs/smt2.md) with the given payload: an
    // audio message is copied once into a pool buffer, any other into a buffer of its own. The
    // future completes once the message is in the socket.
    Future<ErrorID> enqueue(std::uint16_t type, const std::uint8_t* head, std::size_t headSize,
                            const std::uint8_t* body = nullptr, std::size_t bodySize = 0);

private:
    struct Private;
    std::shared_ptr<Private> d;
};

} // namespace smt2
