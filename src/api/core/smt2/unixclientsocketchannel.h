#pragma once

#include "smt2/transportchannel.h"

#include <memory>
#include <string>

namespace smt2 {

// A Unix-domain stream socket client on an IOEventLoop. The loop must outlive the channel.
// The destructor closes the connection on the loop thread and waits for that.
class UnixClientSocketChannel : public TransportChannel
{
public:
    explicit UnixClientSocketChannel(miscUtils::IOEventLoop& loop);
    ~UnixClientSocketChannel() override;
    UnixClientSocketChannel(const UnixClientSocketChannel&) = delete;
    UnixClientSocketChannel& operator=(const UnixClientSocketChannel&) = delete;

    // The filesystem path of the receiver's socket. Takes effect at the next open().
    void setSocketAddress(std::string path);
    std::string socketAddress() const;
    // SO_SNDBUF of the socket, in bytes; 0 or less keeps the system's default. Takes effect at
    // the next open(). The socket's buffer is all that a non-reading receiver lets through.
    void setSendBufferSize(int bytes);

    miscUtils::IOEventLoop& ioEventLoop() override;
    void open(std::function<void(ErrorID)> done) override;
    void write(const std::uint8_t* data, std::size_t size, std::function<void(ErrorID)> done) override;
    void startReading(std::function<void(const std::uint8_t*, std::size_t)> received,
                      std::function<void(ErrorID)> closed) override;
    void close() override;
    bool isOpen() const override;

private:
    struct Private;
    std::shared_ptr<Private> d;
};

} // namespace smt2
