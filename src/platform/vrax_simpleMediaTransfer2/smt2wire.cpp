#include "smt2wire.h"

#include <cstring>
#include <functional>

namespace smt2::wire {

namespace {
enum Tag : std::uint8_t { TagNull = 0, TagBool = 1, TagInt = 2, TagDouble = 3, TagString = 4, TagHash = 5 };
constexpr int MaxDepth = 16;
} // namespace

void Writer::u16(std::uint16_t v)
{
    u8(std::uint8_t(v));
    u8(std::uint8_t(v >> 8));
}

void Writer::u32(std::uint32_t v)
{
    u16(std::uint16_t(v));
    u16(std::uint16_t(v >> 16));
}

void Writer::u64(std::uint64_t v)
{
    u32(std::uint32_t(v));
    u32(std::uint32_t(v >> 32));
}

void Writer::string(const std::string& s)
{
    u32(std::uint32_t(s.size()));
    bytes(reinterpret_cast<const std::uint8_t*>(s.data()), s.size());
}

void Writer::bytes(const std::uint8_t* data, std::size_t size)
{
    if (size)
        m_out.insert(m_out.end(), data, data + size);
}

void Writer::variant(const miscUtils::Variant& v)
{
    using T = miscUtils::Variant::Type;
    switch (v.type()) {
    case T::Null:
        u8(TagNull);
        break;
    case T::Bool:
        u8(TagBool);
        u8(v.asBool() ? 1 : 0);
        break;
    case T::Int:
        u8(TagInt);
        u64(std::uint64_t(v.asInt()));
        break;
    case T::Double: {
        u8(TagDouble);
        const double d = v.asDouble();
        std::uint64_t bits;
        std::memcpy(&bits, &d, sizeof bits);
        u64(bits);
        break;
    }
    case T::String:
        u8(TagString);
        string(v.asString());
        break;
    case T::Hash:
        u8(TagHash);
        hash(v.asHash());
        break;
    }
}

void Writer::hash(const miscUtils::VariantHash& h)
{
    u32(std::uint32_t(h.size()));
    for (const auto& [key, value] : h) {
        string(key);
        variant(value);
    }
}

bool Reader::take(std::size_t n)
{
    if (!m_ok || m_size - m_pos < n) {
        m_ok = false;
        return false;
    }
    return true;
}

std::uint8_t Reader::u8()
{
    if (!take(1))
        return 0;
    return m_data[m_pos++];
}

std::uint16_t Reader::u16()
{
    const std::uint16_t lo = u8();
    return std::uint16_t(lo | (std::uint16_t(u8()) << 8));
}

std::uint32_t Reader::u32()
{
    const std::uint32_t lo = u16();
    return lo | (std::uint32_t(u16()) << 16);
}

std::uint64_t Reader::u64()
{
    const std::uint64_t lo = u32();
    return lo | (std::uint64_t(u32()) << 32);
}

std::string Reader::string()
{
    const std::uint32_t n = u32();
    if (!take(n))
        return {};
    std::string s(reinterpret_cast<const char*>(m_data + m_pos), n);
    m_pos += n;
    return s;
}

miscUtils::Variant Reader::variant()
{
    return variant(0);
}

miscUtils::VariantHash Reader::hash()
{
    return hash(0);
}

miscUtils::Variant Reader::variant(int depth)
{
    switch (u8()) {
    case TagNull:
        return {};
    case TagBool:
        return miscUtils::Variant(u8() != 0);
    case TagInt:
        return miscUtils::Variant(std::int64_t(u64()));
    case TagDouble: {
        const std::uint64_t bits = u64();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return miscUtils::Variant(d);
    }
    case TagString:
        return miscUtils::Variant(string());
    case TagHash:
        if (depth >= MaxDepth)
            break;
        return miscUtils::Variant(hash(depth + 1));
    default:
        break;
    }
    m_ok = false;
    return {};
}

miscUtils::VariantHash Reader::hash(int depth)
{
    miscUtils::VariantHash h;
    const std::uint32_t n = u32();
    for (std::uint32_t i = 0; i < n && m_ok; ++i) {
        std::string key = string();
        miscUtils::Variant value = variant(depth);
        if (m_ok)
            h.insert_or_assign(std::move(key), std::move(value));
    }
    return m_ok ? h : miscUtils::VariantHash();
}

void writeHeader(std::uint8_t* out, std::uint32_t payloadSize, std::uint16_t type)
{
    std::vector<std::uint8_t> bytes;
    Writer w(bytes);
    w.u32(payloadSize);
    w.u16(type);
    w.u16(0);
    std::memcpy(out, bytes.data(), HeaderSize);
}

Header readHeader(const std::uint8_t* in)
{
    Reader r(in, HeaderSize);
    Header h;
    h.payloadSize = r.u32();
    h.type = r.u16();
    h.flags = r.u16();
    return h;
}

namespace {
std::vector<std::uint8_t> framed(MessageType type, const std::function<void(Writer&)>& payload)
{
    std::vector<std::uint8_t> frame(HeaderSize, 0);
    Writer w(frame);
    payload(w);
    writeHeader(frame.data(), std::uint32_t(frame.size() - HeaderSize), type);
    return frame;
}
} // namespace

std::vector<std::uint8_t> helloFrame(const HelloPayload& hello)
{
    return framed(Hello, [&](Writer& w) {
        w.u32(Magic);
        w.u16(hello.version);
        w.u16(0);
        w.string(hello.role);
    });
}

bool readHelloVersion(const std::uint8_t* payload, std::size_t size, std::uint16_t* version)
{
    Reader r(payload, size);
    const std::uint32_t magic = r.u32();
    *version = r.u16();
    return r.ok() && magic == Magic;
}

std::vector<std::uint8_t> helloReplyFrame(const HelloReplyPayload& reply)
{
    return framed(HelloReply, [&](Writer& w) {
        w.u8(reply.accepted ? 1 : 0);
        w.u8(0);
        w.u16(reply.version);
        w.u32(std::uint32_t(reply.error));
        w.string(reply.reason);
    });
}

bool readHelloReply(const std::uint8_t* payload, std::size_t size, HelloReplyPayload* reply)
{
    Reader r(payload, size);
    reply->accepted = r.u8() != 0;
    r.u8();
    reply->version = r.u16();
    reply->error = std::int32_t(r.u32());
    reply->reason = r.string();
    return r.ok();
}

} // namespace smt2::wire
