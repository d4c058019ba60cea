// audio_stranger: a local program that is not an audio sender, for the fault suite. It races the
// module to the audio pipeline's socket: it watches the socket's directory and connects the
// moment a pipeline starts listening, so it is served before the module's sender, which then
// waits in its handshake. Once connected it does what its mode says and waits for the pipeline
// to hang up, then connects again, until its time is up.
//
//   audio_stranger SOCKET MODE SECONDS
//     MODE oversized-hello   a Hello header that announces 16 MiB, then nothing
//          silent            nothing at all
//
// One line per event on standard output: "connected", "closed after N ms", and
// "refused: REASON" whenever connect() starts failing for a new reason.
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

void say(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

// Waits until something is created in the watched directory, or a short while.
void waitForCreation(int watch)
{
    pollfd fd{watch, POLLIN, 0};
    if (::poll(&fd, 1, 50) > 0) {
        char events[4096];
        [[maybe_unused]] const ssize_t n = ::read(watch, events, sizeof events);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4 || (std::strcmp(argv[2], "oversized-hello") != 0 && std::strcmp(argv[2], "silent") != 0)) {
        std::fprintf(stderr, "usage: audio_stranger SOCKET oversized-hello|silent SECONDS\n");
        return 2;
    }
    const std::string path = argv[1];
    const bool oversized = std::strcmp(argv[2], "oversized-hello") == 0;
    const auto until = Clock::now() + std::chrono::seconds(std::atoi(argv[3]));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const std::string directory = path.substr(0, path.rfind('/'));
    const int watch = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    int watching = -1;
    int lastError = 0;
    // Ahead of the device's threads where the account may (root): the race is its whole attack.
    ::setpriority(PRIO_PROCESS, 0, -15);
    auto refusedSince = Clock::now();

    while (Clock::now() < until) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            const int error = errno;
            ::close(fd);
            if (error != lastError) {
                say(std::string("refused: ") + std::strerror(error));
                refusedSince = Clock::now();
            }
            lastError = error;
            if (watching < 0)
                watching = ::inotify_add_watch(watch, directory.c_str(), IN_CREATE);
            // Bound, not yet listening: a moment away, unless the file was left behind.
            if (error == ECONNREFUSED && Clock::now() - refusedSince < std::chrono::milliseconds(200))
                continue;
            if (error == ENOENT && watching >= 0)
                waitForCreation(watch);
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        lastError = 0;
        say("connected");
        const auto connected = Clock::now();
        if (oversized) {
            // Header: payload length, type 1 (Hello), flags.
            const std::uint8_t header[8] = {0, 0, 0, 1, 1, 0, 0, 0};
            [[maybe_unused]] const ssize_t sent = ::send(fd, header, sizeof header, MSG_NOSIGNAL);
        }
        for (;;) {
            pollfd readable{fd, POLLIN, 0};
            const int left = int(std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count());
            if (left <= 0 || ::poll(&readable, 1, left) <= 0)
                break;
            char byte;
            if (::recv(fd, &byte, 1, 0) <= 0) {
                say("closed after " + std::to_string(msSince(connected)) + " ms");
                break;
            }
        }
        ::close(fd);
    }
    return 0;
}
