#include "smt2/unixclientsocketchannel.h"

#include "ioeventloop_p.h"

#include <asio/local/stream_protocol.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <array>
#include <mutex>

namespace smt2 {

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("smt2");
}

struct UnixClientSocketChannel::Private : std::enable_shared_from_this<Private>
{
    explicit Private(miscUtils::IOEventLoop& l) : loop(l), socket(miscUtils::asioContext(l)) {}

    miscUtils::IOEventLoop& loop;
    mutable std::mutex configMutex;
    std::string path;
    int sendBufferSize = 0;

    // Loop thread only. A callback of an earlier connection sees another generation and
    // stays silent.
    asio::local::stream_protocol::socket socket;
    unsigned generation = 0;
    std::array<std::uint8_t, 4096> readBuffer{};
    std::function<void(const std::uint8_t*, std::size_t)> received;
    std::function<void(ErrorID)> closed;

    void readMore(unsigned gen)
    {
        socket.async_read_some(asio::buffer(readBuffer),
                               [self = shared_from_this(), gen](const std::error_code& ec, std::size_t n) {
                                   if (gen != self->generation)
                                       return;
                                   if (ec) {
                                       LOG4CPLUS_DEBUG(logger, "Connection ended: " << ec.message());
                                       auto closed = std::move(self->closed);
                                       self->received = nullptr;
                                       if (closed)
                                           closed(ErrorID::ConnectionLost);
                                       return;
                                   }
                                   if (self->received)
                                       self->received(self->readBuffer.data(), n);
                                   if (gen == self->generation)
                                       self->readMore(gen);
                               });
    }

    void close()
    {
        ++generation;
        received = nullptr;
        closed = nullptr;
        std::error_code ignored;
        socket.close(ignored);
    }
};

UnixClientSocketChannel::UnixClientSocketChannel(miscUtils::IOEventLoop& loop)
    : d(std::make_shared<Private>(loop))
{
}

UnixClientSocketChannel::~UnixClientSocketChannel()
{
    auto p = d;
    if (!d->loop.runSync([p] { p->close(); }))
        p->close(); // the loop no longer runs, so nothing else touches the socket
}

void UnixClientSocketChannel::setSocketAddress(std::string path)
{
    std::lock_guard<std::mutex> lock(d->configMutex);
    d->path = std::move(path);
}

std::string UnixClientSocketChannel::socketAddress() const
{
    std::lock_guard<std::mutex> lock(d->configMutex);
    return d->path;
}

void UnixClientSocketChannel::setSendBufferSize(int bytes)
{
    std::lock_guard<std::mutex> lock(d->configMutex);
    d->sendBufferSize = bytes;
}

miscUtils::IOEventLoop& UnixClientSocketChannel::ioEventLoop()
{
    return d->loop;
}

void UnixClientSocketChannel::open(std::function<void(ErrorID)> done)
{
    d->close();
    const unsigned gen = d->generation;
    std::string path;
    int sendBufferSize;
    {
        std::lock_guard<std::mutex> lock(d->configMutex);
        path = d->path;
        sendBufferSize = d->sendBufferSize;
    }
    std::error_code ec;
    asio::local::stream_protocol::endpoint endpoint;
    if (path.empty() || path.size() >= endpoint.capacity()) {
        LOG4CPLUS_WARN(logger, "Invalid socket address: \"" << path << "\"");
        d->loop.post([done] { done(ErrorID::ConnectFailed); });
        return;
    }
    endpoint.path(path);
    d->socket.open(asio::local::stream_protocol(), ec);
    if (!ec && sendBufferSize > 0)
        d->socket.set_option(asio::socket_base::send_buffer_size(sendBufferSize), ec);
    if (ec) {
        LOG4CPLUS_WARN(logger, "Can not create socket for " << path << ": " << ec.message());
        d->close();
        d->loop.post([done] { done(ErrorID::ConnectFailed); });
        return;
    }
    d->socket.async_connect(endpoint, [self = d, gen, done, path](const std::error_code& ec) {
        if (gen != self->generation)
            return;
        if (ec) {
            LOG4CPLUS_DEBUG(logger, "Can not connect to " << path << ": " << ec.message());
            self->close();
            done(ErrorID::ConnectFailed);
            return;
        }
        done(ErrorID::Success);
    });
}

void UnixClientSocketChannel::write(const std::uint8_t* data, std::size_t size, std::function<void(ErrorID)> done)
{
    const unsigned gen = d->generation;
    asio::async_write(d->socket, asio::buffer(data, size),
                      [self = d, gen, done](const std::error_code& ec, std::size_t) {
                          if (gen != self->generation)
                              return;
                          if (ec)
                              LOG4CPLUS_DEBUG(logger, "Write failed: " << ec.message());
                          done(ec ? ErrorID::ConnectionLost : ErrorID::Success);
                      });
}

void UnixClientSocketChannel::startReading(std::function<void(const std::uint8_t*, std::size_t)> received,
                                           std::function<void(ErrorID)> closed)
{
    d->received = std::move(received);
    d->closed = std::move(closed);
    d->readMore(d->generation);
}

void UnixClientSocketChannel::close()
{
    d->close();
}

bool UnixClientSocketChannel::isOpen() const
{
    return d->socket.is_open();
}

} // namespace smt2
