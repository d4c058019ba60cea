#include "smt2/audiosender.h"

#include "smt2wire.h"

namespace smt2 {

AudioSender::AudioSender(BufferPool* pool) : Sender(pool) {}

Future<ErrorID> AudioSender::setAudioSequenceInfo(std::string type, miscUtils::VariantHash info)
{
    std::vector<std::uint8_t> payload;
    wire::Writer w(payload);
    w.string(type);
    w.hash(info);
    return enqueue(wire::SequenceInfo, payload.data(), payload.size());
}

Future<ErrorID> AudioSender::sendAudioData(unsigned long presentationTime, unsigned long duration,
                                           const nonstd::span_lite::span<const unsigned char>& data)
{
    if (data.empty())
        return Future<ErrorID>::ready(ErrorID::InvalidArgument);
    std::vector<std::uint8_t> head;
    head.reserve(wire::AudioDataHeadSize);
    wire::Writer w(head);
    w.u64(presentationTime);
    w.u64(duration);
    return enqueue(wire::AudioData, head.data(), head.size(), data.data(), data.size());
}

Future<ErrorID> AudioSender::sendFlush()
{
    return enqueue(wire::Flush, nullptr, 0);
}

Future<ErrorID> AudioSender::endCurrentAudioSequence()
{
    return enqueue(wire::EndOfSequence, nullptr, 0);
}

} // namespace smt2
