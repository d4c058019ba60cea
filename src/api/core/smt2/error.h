#pragma once

#include "miscUtils/variant.h"

#include <cstdint>

namespace smt2 {

enum class ErrorID : std::int32_t {
    Success = 0,
    NoTransportChannel = 1, // no channel was set
    AlreadyConnected = 2,   // connect() while not disconnected
    ConnectFailed = 3,      // the socket could not be connected
    HandshakeFailed = 4,    // the receiver refused the handshake or answered nonsense
    NotConnected = 5,       // an operation that needs the streaming state
    ConnectionLost = 6,     // the peer closed or the socket failed
    Disconnected = 7,       // disconnect() or destruction ended the operation
    NoSequenceInfo = 8,     // audio before any sequence info
    NoBufferAvailable = 9,  // every buffer of the pool is in use
    ProtocolError = 10,     // a malformed message
    InvalidArgument = 11,
};

// A constant name of the error ("Success", "ConnectFailed", ...); "Unknown" for other values.
const char* toString(ErrorID error);

// An error with details (for a refused handshake: "reason", "receiverVersion").
struct Error
{
    ErrorID id = ErrorID::Success;
    miscUtils::Variant details;
};

} // namespace smt2
