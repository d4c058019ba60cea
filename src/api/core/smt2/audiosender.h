#pragma once

#include "miscUtils/variant.h"
#include "smt2/sender.h"
#include "smt2/span.h"

#include <string>

namespace smt2 {

// Sends audio sequences: a sequence info (type and parameters), audio data, flushes and the
// end of the sequence, in the order of the calls. Threads as for Sender; calls from several
// threads are ordered as they reach the sender.
class AudioSender : public Sender
{
public:
    explicit AudioSender(BufferPool* pool);

    // Announces the audio that follows. Valid in any state: the sender keeps the last info
    // and sends it again at the start of a connection and before audio that follows an
    // endCurrentAudioSequence().
    Future<ErrorID> setAudioSequenceInfo(std::string type, miscUtils::VariantHash info);
    // Copies the bytes into one pool buffer before it returns (the span is not kept).
    // Completes with Success once the bytes are in the socket, so a receiver that does not
    // read holds the caller back; NotConnected outside Streaming, NoSequenceInfo before any
    // sequence info, NoBufferAvailable when the pool is exhausted.
    Future<ErrorID> sendAudioData(unsigned long presentationTime, unsigned long duration,
                                  const nonstd::span_lite::span<const unsigned char>& data);
    // Tells the receiver to drop audio it has not played yet.
    Future<ErrorID> sendFlush();
    Future<ErrorID> endCurrentAudioSequence();
};

} // namespace smt2
