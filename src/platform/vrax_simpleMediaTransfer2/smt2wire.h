#pragma once

// The smt2 wire protocol (docs/smt2.md) as both ends of the desktop platform speak it: the
// message types, framing, value encoding and the handshake's two messages. The sender and the
// audio pipeline use nothing else, so one change here changes both ends. All integers are
// little-endian.
#include "miscUtils/variant.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace smt2::wire {

inline constexpr std::uint32_t Magic = 0x32544D53; // "SMT2" as bytes on the wire
inline constexpr std::size_t HeaderSize = 8;          // u32 payload length, u16 type, u16 flags
inline constexpr std::uint32_t MaxPayload = 16u << 20;
inline constexpr std::size_t AudioDataHeadSize = 16;  // two u64 time values
// A Hello is magic, version, reserved and a role string; roles are short words ("audio").
inline constexpr std::size_t MaxHelloRoleSize = 64;
inline constexpr std::uint32_t MaxHelloPayload = 4 + 2 + 2 + 4 + MaxHelloRoleSize;

// The type field of a message's header.
enum MessageType : std::uint16_t {
    Hello = 1,
    HelloReply = 2,
    SequenceInfo = 3,
    AudioData = 4,
    Flush = 5,
    EndOfSequence = 6,
};

struct Header
{
    std::uint32_t payloadSize = 0;
    std::uint16_t type = 0;
    std::uint16_t flags = 0;
};

// Appends encoded values to a byte vector.
class Writer
{
public:
    explicit Writer(std::vector<std::uint8_t>& out) : m_out(out) {}
    void u8(std::uint8_t v) { m_out.push_back(v); }
    void u16(std::uint16_t v);
    void u32(std::uint32_t v);
    void u64(std::uint64_t v);
    void string(const std::string& s);
    void variant(const miscUtils::Variant& v);
    void hash(const miscUtils::VariantHash& h);
    void bytes(const std::uint8_t* data, std::size_t size);

private:
    std::vector<std::uint8_t>& m_out;
};

// Reads encoded values; every read fails (and keeps failing) past the end or on a malformed
// value, so a caller checks ok() once at the end.
class Reader
{
public:
    Reader(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
    std::uint8_t u8();
    std::uint16_t u16();
    std::uint32_t u32();
    std::uint64_t u64();
    std::string string();
    miscUtils::Variant variant();
    miscUtils::VariantHash hash();

    bool ok() const { return m_ok; }
    std::size_t remaining() const { return m_ok ? m_size - m_pos : 0; }
    const std::uint8_t* current() const { return m_data + m_pos; }

private:
    bool take(std::size_t n);
    miscUtils::Variant variant(int depth);
    miscUtils::VariantHash hash(int depth);

    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_pos = 0;
    bool m_ok = true;
};

void writeHeader(std::uint8_t* out, std::uint32_t payloadSize, std::uint16_t type);
Header readHeader(const std::uint8_t* in);

// What a sender says first: the protocol version it speaks and its role.
struct HelloPayload
{
    std::uint16_t version = 0;
    std::string role;
};
// The receiver's answer to a Hello. error is an smt2::ErrorID value: 0 when accepted.
struct HelloReplyPayload
{
    bool accepted = false;
    std::uint16_t version = 0;
    std::int32_t error = 0;
    std::string reason;
};

// A whole Hello message, header included.
std::vector<std::uint8_t> helloFrame(const HelloPayload& hello);
// The version a Hello payload offers; false when the payload does not start with the magic and a
// version. The rest (reserved field, role) is not read: the receiver serves any role.
bool readHelloVersion(const std::uint8_t* payload, std::size_t size, std::uint16_t* version);

// A whole HelloReply message, header included.
std::vector<std::uint8_t> helloReplyFrame(const HelloReplyPayload& reply);
// Reads a HelloReply payload into reply; false when it is malformed (too short, or a reason that
// runs past its end). reply keeps what was read before the fault.
bool readHelloReply(const std::uint8_t* payload, std::size_t size, HelloReplyPayload* reply);

} // namespace smt2::wire
