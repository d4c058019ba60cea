#include "smt2/sender.h"

#include "miscUtils/ioeventloop.h"
#include "smt2wire.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>

namespace smt2 {

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("smt2");

struct Outgoing
{
    std::uint16_t type = 0;
    PoolBuffer pooled;              // audio: one copy of what the caller gave
    std::vector<std::uint8_t> small; // control messages
    Promise<ErrorID> done;

    const std::uint8_t* data() const { return pooled ? pooled.data() : small.data(); }
    std::size_t size() const { return pooled ? pooled.size() : small.size(); }
};
} // namespace

struct Sender::Private : std::enable_shared_from_this<Private>
{
    BufferPool* pool = nullptr;
    std::atomic<int> state{Disconnected};

    // Set before connect(), read on the loop thread afterwards.
    TransportChannel* channel = nullptr;
    std::function<void(State, State)> stateHandler;
    std::function<void(Error)> handshakeHandler;

    std::mutex queueMutex;
    std::deque<Outgoing> queue;

    // Loop thread only.
    unsigned generation = 0;
    // Not std::optional: GCC 12 at -O3 falsely warns that a moved-out optional Promise is uninitialized.
    std::unique_ptr<Promise<ErrorID>> connecting;
    std::optional<Outgoing> current;
    bool writing = false;
    std::vector<std::uint8_t> incoming;
    std::vector<std::uint8_t> helloFrame;
    std::vector<std::uint8_t> sequenceInfoFrame; // the last announced sequence, resent as needed
    bool sequenceOpen = false;

    void setState(State next)
    {
        const State old = State(state.exchange(next));
        if (old != next && stateHandler)
            stateHandler(old, next);
    }

    void startConnect(Promise<ErrorID> promise)
    {
        if (!channel) {
            promise.setValue(ErrorID::NoTransportChannel);
            return;
        }
        if (state.load() != Disconnected) {
            promise.setValue(ErrorID::AlreadyConnected);
            return;
        }
        const unsigned gen = ++generation;
        connecting = std::make_unique<Promise<ErrorID>>(promise);
        setState(Connecting);
        if (gen != generation)
            return;
        channel->open([self = shared_from_this(), gen](ErrorID result) {
            if (gen != self->generation)
                return;
            if (result != ErrorID::Success) {
                self->teardown(result);
                return;
            }
            self->startHandshake(gen);
        });
    }

    void startHandshake(unsigned gen)
    {
        setState(Handshaking);
        if (gen != generation)
            return;
        auto self = shared_from_this();
        channel->startReading([self, gen](const std::uint8_t* data, std::size_t size) { self->received(gen, data, size); },
                              [self, gen](ErrorID reason) {
                                  if (gen == self->generation)
                                      self->teardown(reason);
                              });
        helloFrame = wire::helloFrame({ProtocolVersion, "audio"});
        writing = true;
        channel->write(helloFrame.data(), helloFrame.size(), [self, gen](ErrorID result) {
            if (gen != self->generation)
                return;
            self->writing = false;
            if (result != ErrorID::Success)
                self->teardown(result);
        });
    }

    void received(unsigned gen, const std::uint8_t* data, std::size_t size)
    {
        incoming.insert(incoming.end(), data, data + size);
        while (gen == generation && incoming.size() >= wire::HeaderSize) {
            const wire::Header header = wire::readHeader(incoming.data());
            if (header.payloadSize > wire::MaxPayload) {
                LOG4CPLUS_WARN(logger, "Receiver sent a message of " << header.payloadSize << " bytes");
                teardown(ErrorID::ProtocolError);
                return;
            }
            if (incoming.size() < wire::HeaderSize + header.payloadSize)
                return;
            std::vector<std::uint8_t> payload(incoming.begin() + wire::HeaderSize,
                                              incoming.begin() + wire::HeaderSize + header.payloadSize);
            incoming.erase(incoming.begin(), incoming.begin() + wire::HeaderSize + header.payloadSize);
            if (header.type == wire::HelloReply && state.load() == Handshaking)
                handshakeReply(gen, payload);
            else
                LOG4CPLUS_DEBUG(logger, "Ignoring message of type " << header.type);
        }
    }

    void handshakeReply(unsigned gen, const std::vector<std::uint8_t>& payload)
    {
        wire::HelloReplyPayload reply;
        const bool wellFormed = wire::readHelloReply(payload.data(), payload.size(), &reply);
        if (wellFormed && reply.accepted && reply.version == ProtocolVersion) {
            setState(Streaming);
            if (gen != generation)
                return;
            sequenceOpen = false;
            auto promise = std::move(connecting);
            connecting.reset();
            if (promise)
                promise->setValue(ErrorID::Success);
            if (gen == generation)
                pump();
            return;
        }
        const std::string reason = wellFormed ? reply.reason : std::string("malformed reply");
        LOG4CPLUS_DEBUG(logger, "Handshake refused: " << reason);
        auto promise = std::move(connecting);
        connecting.reset();
        Error error{ErrorID::HandshakeFailed,
                    miscUtils::VariantHash{{"reason", reason},
                                           {"receiverVersion", int(reply.version)},
                                           {"receiverError", int(reply.error)}}};
        if (handshakeHandler)
            handshakeHandler(error);
        if (promise)
            promise->setValue(ErrorID::HandshakeFailed);
    }

    // Ends the connection; everything pending completes with reason.
    void teardown(ErrorID reason)
    {
        ++generation;
        if (channel)
            channel->close();
        writing = false;
        incoming.clear();
        sequenceOpen = false;
        std::unique_ptr<Promise<ErrorID>> promise = std::move(connecting);
        connecting.reset();
        std::optional<Outgoing> inFlight = std::move(current);
        current.reset();
        std::deque<Outgoing> pending;
        {
            std::lock_guard<std::mutex> lock(queueMutex);
            pending.swap(queue);
        }
        setState(Disconnected);
        if (promise)
            promise->setValue(reason == ErrorID::ConnectionLost ? ErrorID::ConnectFailed : reason);
        if (inFlight)
            inFlight->done.setValue(reason);
        for (Outgoing& item : pending) {
            if (item.type == wire::SequenceInfo) {
                sequenceInfoFrame = std::move(item.small);
                item.done.setValue(ErrorID::Success);
            } else {
                item.done.setValue(reason == ErrorID::Disconnected ? ErrorID::NotConnected : reason);
            }
        }
    }

    // Writes queued messages one after the other while streaming.
    void pump()
    {
        while (!writing && channel) {
            Outgoing item;
            {
                std::lock_guard<std::mutex> lock(queueMutex);
                if (queue.empty())
                    return;
                item = std::move(queue.front());
                queue.pop_front();
            }
            const bool streaming = state.load() == Streaming;
            switch (item.type) {
            case wire::SequenceInfo:
                sequenceInfoFrame = item.small;
                sequenceOpen = false;
                if (!streaming) {
                    item.done.setValue(ErrorID::Success);
                    continue;
                }
                break;
            case wire::AudioData:
                if (!streaming) {
                    item.done.setValue(ErrorID::NotConnected);
                    continue;
                }
                if (sequenceInfoFrame.empty()) {
                    item.done.setValue(ErrorID::NoSequenceInfo);
                    continue;
                }
                break;
            case wire::EndOfSequence:
                if (streaming && !sequenceOpen) {
                    item.done.setValue(ErrorID::Success); // nothing was sent since the last end
                    continue;
                }
                [[fallthrough]];
            default:
                if (!streaming) {
                    item.done.setValue(ErrorID::NotConnected);
                    continue;
                }
                break;
            }
            write(std::move(item));
        }
    }

    void write(Outgoing item)
    {
        const unsigned gen = generation;
        auto self = shared_from_this();
        writing = true;
        current = std::move(item);
        if (current->type == wire::AudioData && !sequenceOpen) {
            // A sequence starts with its info; the info frame is not touched while written.
            sequenceOpen = true;
            channel->write(sequenceInfoFrame.data(), sequenceInfoFrame.size(), [self, gen](ErrorID result) {
                if (gen != self->generation)
                    return;
                if (result != ErrorID::Success) {
                    self->teardown(result);
                    return;
                }
                self->writeCurrent(gen);
            });
            return;
        }
        if (current->type == wire::SequenceInfo)
            sequenceOpen = true;
        if (current->type == wire::EndOfSequence)
            sequenceOpen = false;
        writeCurrent(gen);
    }

    void writeCurrent(unsigned gen)
    {
        auto self = shared_from_this();
        channel->write(current->data(), current->size(), [self, gen](ErrorID result) {
            if (gen != self->generation)
                return;
            if (result != ErrorID::Success) {
                self->teardown(result);
                return;
            }
            Outgoing done = std::move(*self->current);
            self->current.reset();
            self->writing = false;
            done.pooled = PoolBuffer(); // back to the pool before the caller hears of it
            done.done.setValue(ErrorID::Success);
            if (gen == self->generation)
                self->pump();
        });
    }
};

Sender::Sender(BufferPool* pool) : d(std::make_shared<Private>())
{
    d->pool = pool;
}

Sender::~Sender()
{
    auto p = d;
    if (!p->channel)
        return;
    auto teardown = [p] {
        p->stateHandler = nullptr;
        p->handshakeHandler = nullptr;
        p->teardown(ErrorID::Disconnected);
        p->channel = nullptr;
    };
    if (!p->channel->ioEventLoop().runSync(teardown))
        teardown();
}

void Sender::setTransportChannel(TransportChannel& channel)
{
    d->channel = &channel;
}

void Sender::onStateChange(std::function<void(State, State)> handler)
{
    d->stateHandler = std::move(handler);
}

void Sender::onHandshakeFailed(std::function<void(Error)> handler)
{
    d->handshakeHandler = std::move(handler);
}

Sender::State Sender::state() const
{
    return State(d->state.load());
}

Future<ErrorID> Sender::connect()
{
    Promise<ErrorID> promise;
    Future<ErrorID> result = promise.future();
    if (!d->channel) {
        promise.setValue(ErrorID::NoTransportChannel);
        return result;
    }
    d->channel->ioEventLoop().post([p = d, promise] { p->startConnect(promise); });
    return result;
}

void Sender::disconnect()
{
    if (!d->channel)
        return;
    d->channel->ioEventLoop().runSync([p = d] { p->teardown(ErrorID::Disconnected); });
}

Future<ErrorID> Sender::enqueue(std::uint16_t type, const std::uint8_t* head, std::size_t headSize,
                                const std::uint8_t* body, std::size_t bodySize)
{
    if (!d->channel)
        return Future<ErrorID>::ready(ErrorID::NoTransportChannel);
    const std::size_t payloadSize = headSize + bodySize;
    if (payloadSize > wire::MaxPayload)
        return Future<ErrorID>::ready(ErrorID::InvalidArgument);
    Outgoing item;
    item.type = type;
    std::uint8_t* out;
    if (type == wire::AudioData) {
        item.pooled = d->pool->acquire(wire::HeaderSize + payloadSize);
        if (!item.pooled)
            return Future<ErrorID>::ready(ErrorID::NoBufferAvailable);
        out = item.pooled.data();
    } else {
        item.small.resize(wire::HeaderSize + payloadSize);
        out = item.small.data();
    }
    wire::writeHeader(out, std::uint32_t(payloadSize), type);
    if (headSize)
        std::memcpy(out + wire::HeaderSize, head, headSize);
    if (bodySize)
        std::memcpy(out + wire::HeaderSize + headSize, body, bodySize);
    Future<ErrorID> result = item.done.future();
    {
        std::lock_guard<std::mutex> lock(d->queueMutex);
        d->queue.push_back(std::move(item));
    }
    d->channel->ioEventLoop().post([p = d] { p->pump(); });
    return result;
}

} // namespace smt2
