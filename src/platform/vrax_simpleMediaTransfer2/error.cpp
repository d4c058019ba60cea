#include "smt2/error.h"

namespace smt2 {

const char* toString(ErrorID error)
{
    switch (error) {
    case ErrorID::Success:
        return "Success";
    case ErrorID::NoTransportChannel:
        return "NoTransportChannel";
    case ErrorID::AlreadyConnected:
        return "AlreadyConnected";
    case ErrorID::ConnectFailed:
        return "ConnectFailed";
    case ErrorID::HandshakeFailed:
        return "HandshakeFailed";
    case ErrorID::NotConnected:
        return "NotConnected";
    case ErrorID::ConnectionLost:
        return "ConnectionLost";
    case ErrorID::Disconnected:
        return "Disconnected";
    case ErrorID::NoSequenceInfo:
        return "NoSequenceInfo";
    case ErrorID::NoBufferAvailable:
        return "NoBufferAvailable";
    case ErrorID::ProtocolError:
        return "ProtocolError";
    case ErrorID::InvalidArgument:
        return "InvalidArgument";
    }
    return "Unknown";
}

} // namespace smt2
