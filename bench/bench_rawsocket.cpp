// The raw baseline of the audio path: 16-bit stereo PCM over an AF_UNIX stream socket pair, a
// writer thread and a reader thread that reads as fast as it can, nothing else. Built with the
// module's flags so the comparison is between the code paths, not the compilers.
//
//   bench_rawsocket throughput BYTES [WRITE_BYTES=131072]
//       writes BYTES as fast as the socket takes them
//   bench_rawsocket paced SECONDS [WRITE_BYTES=131072]
//       writes at 44.1 kHz 16-bit stereo byte rate for SECONDS
//
// Prints the figures, then one JSON line (starting with '{') for scripts: seconds, bytes,
// bytesPerSecond, cpuSeconds (user+sys of the whole process), latencyMedianUs and latencyP99Us
// (from a write being handed to the socket to the reader having its last byte), peakRssKiB.
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kBytesPerSecond = 44100.0 * 2 * 2;

struct Mark
{
    Clock::time_point at;
    std::uint64_t offset; // bytes through the socket once this write (or read) is complete
};

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

long peakRssKiB()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// One period of a 441 Hz tone, so every write carries the same kind of bytes the player sends.
std::vector<char> pcmBlock(std::size_t bytes)
{
    std::vector<char> block(bytes);
    for (std::size_t frame = 0; frame < bytes / 4; ++frame) {
        const auto sample = std::int16_t(std::lrint(0.3 * 32767.0 * std::sin(2.0 * M_PI * double(frame % 100) / 100.0)));
        std::memcpy(&block[frame * 4], &sample, 2);
        std::memcpy(&block[frame * 4 + 2], &sample, 2);
    }
    return block;
}

bool writeAll(int fd, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= std::size_t(n);
    }
    return true;
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const std::size_t index = std::min(values.size() - 1, std::size_t(std::ceil(p * double(values.size())) - 1));
    return values[index];
}

int usage(const char* program)
{
    std::fprintf(stderr, "usage: %s throughput BYTES [WRITE_BYTES] | paced SECONDS [WRITE_BYTES]\n", program);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return usage(argv[0]);
    const std::string mode = argv[1];
    const double amount = std::atof(argv[2]);
    const long long writeSize = argc > 3 ? std::atoll(argv[3]) : 131072;
    const bool paced = mode == "paced";
    if ((!paced && mode != "throughput") || amount <= 0 || writeSize <= 0 || writeSize > (64 << 20))
        return usage(argv[0]);
    const std::uint64_t total = paced ? std::uint64_t(amount * kBytesPerSecond) : std::uint64_t(amount);
    const std::size_t chunk = std::size_t(writeSize);

    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        std::perror("socketpair");
        return 1;
    }
    const std::vector<char> block = pcmBlock(chunk);
    std::vector<Mark> writes;
    std::vector<Mark> reads;
    writes.reserve(total / chunk + 2);
    reads.reserve(std::size_t(std::min<std::uint64_t>(total / 4096 + 1024, 1 << 22)));
    std::atomic<bool> failed{false};

    const double cpuBefore = cpuSeconds();
    const Clock::time_point start = Clock::now();
    std::thread reader([&] {
        std::vector<char> buffer(chunk);
        std::uint64_t received = 0;
        while (received < total) {
            const ssize_t n = ::read(fds[1], buffer.data(), buffer.size());
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                failed = true;
                return;
            }
            received += std::uint64_t(n);
            reads.push_back({Clock::now(), received});
        }
    });
    std::uint64_t sent = 0;
    while (sent < total && !failed) {
        const std::size_t size = std::size_t(std::min<std::uint64_t>(chunk, total - sent));
        if (paced)
            std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(
                                                      std::chrono::duration<double>(double(sent) / kBytesPerSecond)));
        const Clock::time_point handed = Clock::now();
        if (!writeAll(fds[0], block.data(), size)) {
            failed = true;
            break;
        }
        sent += size;
        writes.push_back({handed, sent});
    }
    if (failed)
        ::shutdown(fds[0], SHUT_RDWR);
    reader.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const double cpu = cpuSeconds() - cpuBefore;
    ::close(fds[0]);
    ::close(fds[1]);
    if (failed) {
        std::fprintf(stderr, "the socket pair failed: %s\n", std::strerror(errno));
        return 1;
    }

    std::vector<double> latencies;
    latencies.reserve(writes.size());
    std::size_t r = 0;
    for (const Mark& w : writes) {
        while (r < reads.size() && reads[r].offset < w.offset)
            ++r;
        if (r < reads.size())
            latencies.push_back(std::max(0.0, std::chrono::duration<double, std::micro>(reads[r].at - w.at).count()));
    }
    const double median = percentile(latencies, 0.5), p99 = percentile(latencies, 0.99);
    const double rate = double(total) / seconds;
    std::printf("%s: %llu bytes in %zu-byte writes, %.3f s\n", mode.c_str(), static_cast<unsigned long long>(total), chunk,
                seconds);
    std::printf("throughput     %12.1f MB/s (%.1f x real time for 44.1 kHz 16-bit stereo)\n", rate / 1e6,
                rate / kBytesPerSecond);
    std::printf("CPU            %12.4f s user+sys (%.6f s per second of audio)\n", cpu,
                cpu / (double(total) / kBytesPerSecond));
    std::printf("latency        %12.1f us median, %.1f us 99th percentile (%zu writes)\n", median, p99, latencies.size());
    std::printf("peak RSS       %12ld KiB\n", peakRssKiB());
    std::printf("{\"mode\":\"%s\",\"seconds\":%.6f,\"bytes\":%llu,\"writeBytes\":%zu,\"bytesPerSecond\":%.1f,"
                "\"cpuSeconds\":%.6f,\"latencyMedianUs\":%.3f,\"latencyP99Us\":%.3f,\"peakRssKiB\":%ld}\n",
                mode.c_str(), seconds, static_cast<unsigned long long>(total), chunk, rate, cpu, median, p99, peakRssKiB());
    return 0;
}
