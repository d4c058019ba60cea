#pragma once

#include "smt2/error.h"

#include <cstddef>
#include <cstdint>
#include <functional>

namespace miscUtils {
class IOEventLoop;
}

namespace smt2 {

// A byte stream to a receiver, driven by an IOEventLoop. Configuration is done before the
// first open(); open, write, startReading and close run on the loop's thread only, and every
// callback runs there too. After close() returns no callback of the closed connection runs.
class TransportChannel
{
public:
    virtual ~TransportChannel() = default;

    virtual miscUtils::IOEventLoop& ioEventLoop() = 0;

    // Connects; done gets Success or ConnectFailed (with the system's reason in the log).
    virtual void open(std::function<void(ErrorID)> done) = 0;
    // Writes all size bytes; data must stay valid until done runs or close() is called.
    // One write at a time. done gets Success once every byte is in the socket, or
    // ConnectionLost.
    virtual void write(const std::uint8_t* data, std::size_t size, std::function<void(ErrorID)> done) = 0;
    // Delivers incoming bytes until the connection ends; closed gets ConnectionLost once.
    virtual void startReading(std::function<void(const std::uint8_t*, std::size_t)> received,
                              std::function<void(ErrorID)> closed) = 0;
    virtual void close() = 0;
    virtual bool isOpen() const = 0;
};

} // namespace smt2
