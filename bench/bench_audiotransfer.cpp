// Throughput of OrvelloAudioTransfer::processData into the emulated pipeline (null sink, fast
// pace) over the real socket "/tmp/orvello/smt2socketaddress", as the player library drives it:
// offer a block, keep what was not taken, offer it again.
//
//   bench_audiotransfer [seconds=3] [block bytes=8192]
#include "OrvelloAudioTransfer.h"
#include "audiopipeline.h"

#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

namespace {

double peakRssMb()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) / 1024.0;
}

} // namespace

int main(int argc, char** argv)
{
    log4cplus::Initializer logging;
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);
    const double seconds = argc > 1 ? std::atof(argv[1]) : 3.0;
    const std::size_t block = argc > 2 ? std::size_t(std::atol(argv[2])) : 8192;
    if (seconds <= 0 || block == 0) {
        std::fprintf(stderr, "usage: %s [seconds] [block bytes]\n", argv[0]);
        return 2;
    }

    std::filesystem::create_directories("/tmp/orvello");
    vrax::AudioPipeline pipeline("/tmp/orvello/smt2socketaddress", vrax::makeNullSink(), vrax::AudioPace::Fast);
    std::string error;
    if (!pipeline.start(&error)) {
        std::fprintf(stderr, "pipeline: %s\n", error.c_str());
        return 1;
    }
    const double rssBefore = peakRssMb();

    std::uint64_t calls = 0, acceptingCalls = 0, bytes = 0;
    std::chrono::duration<double> elapsed{};
    {
        OrvelloAudioTransfer transfer;
        transfer.setStreamFormat(2, 44100);
        CMReply<void> reply = transfer.connect();
        while (!reply.isFinished())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (reply.isError()) {
            std::fprintf(stderr, "connect failed: %s\n", reply.error().text().toUtf8().constData());
            return 1;
        }
        std::vector<char> pcm(block, 1);
        std::size_t offset = 0;
        const auto start = std::chrono::steady_clock::now();
        const auto end = start + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end) {
            for (int i = 0; i < 256; ++i) {
                const int n = transfer.processData(pcm.data() + offset, block - offset);
                ++calls;
                if (n > 0) {
                    ++acceptingCalls;
                    bytes += std::uint64_t(n);
                    offset = (offset + std::size_t(n)) % block;
                }
            }
        }
        elapsed = std::chrono::steady_clock::now() - start;
        transfer.sendStreamEnd();
        while (pipeline.counters().bytes < bytes)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const double s = elapsed.count();
    std::printf("block %zu bytes, %.2f s\n", block, s);
    std::printf("throughput         %10.1f MB/s (%.1f x 44.1 kHz stereo 16-bit)\n", bytes / s / 1e6,
                bytes / s / (44100.0 * 4));
    std::printf("processData calls  %10.0f /s (%.0f /s accepted data, %.1f%% of calls)\n", calls / s,
                acceptingCalls / s, 100.0 * double(acceptingCalls) / double(calls ? calls : 1));
    std::printf("received           %10llu bytes of %llu sent\n", (unsigned long long)pipeline.counters().bytes,
                (unsigned long long)bytes);
    std::printf("peak RSS           %10.1f MB (%.1f MB before streaming)\n", peakRssMb(), rssBefore);
    return pipeline.counters().bytes == bytes ? 0 : 1;
}
