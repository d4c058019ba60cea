#pragma once

#include "model/cmreply.h"

#include "miscUtils/ioeventloop.h"
#include "smt2/audiosender.h"
#include "smt2/bufferpool.h"
#include "smt2/future.h"
#include "smt2/unixclientsocketchannel.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

// Carries the player library's PCM to the platform's audio pipeline over smt2 on the Unix
// socket in the scratch directory (ScratchDirectory::socketAddress(), read at construction:
// "/tmp/orvello/smt2socketaddress" unless the worker chose a private directory). Keeps no audio
// of its own: processData hands the sender at most one chunk, which the sender copies into one
// buffer of its pool before the call returns, and answers how much it accepted.
//
// Threads: construction, connect(), close() and destruction on the play logic's thread;
// setStreamFormat, processData, flush and sendStreamEnd on the player library's audio
// threads. The sender's handlers and the connect reply are answered on the audio loop thread
// "orvelloAudioLoopThread" (or inside connect()). connect() may run on any thread while audio
// is being delivered: the pending-send handle is guarded.
class OrvelloAudioTransfer
{
public:
    OrvelloAudioTransfer();
    ~OrvelloAudioTransfer();
    OrvelloAudioTransfer(const OrvelloAudioTransfer&) = delete;
    OrvelloAudioTransfer& operator=(const OrvelloAudioTransfer&) = delete;

    // Starts connecting; the reply is answered once the attempt completes, with the error
    // "Failed to connect" when it fails. Reconnecting is the caller's decision. While streaming
    // the stream is kept and the reply succeeds at once; while an attempt is under way the
    // reply follows that attempt.
    CMReply<void> connect();
    // True once the sender has left the disconnected state (audio flows only when streaming).
    bool connected();
    void close();

    // Announces the PCM format (16-bit interleaved) of the audio that follows.
    void setStreamFormat(int channels, int sampleRate);
    // Offers size bytes; returns how many were taken (0 to 131072). 0 while not streaming or
    // while the previous chunk is still on its way; the caller offers the rest again later.
    int processData(const char* data, size_t size);
    void flush();
    void sendStreamEnd();

private:
    std::unique_ptr<miscUtils::IOEventLoopThread> m_loopThread;
    smt2::BufferPool m_bufferPool;
    smt2::UnixClientSocketChannel m_channel;
    smt2::AudioSender m_sender;
    std::atomic<std::int32_t> m_senderState;
    // Guards both handles: connect() and processData run on different threads.
    std::mutex m_pendingMutex;
    smt2::Future<smt2::ErrorID> m_pendingFuture;
    // The last connection attempt's result.
    smt2::Future<smt2::ErrorID> m_connectFuture;
};
