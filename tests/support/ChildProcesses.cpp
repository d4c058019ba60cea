#include "ChildProcesses.h"

#include <QProcess>

#ifdef ORVELLO_TESTS_UNDER_QEMU
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

// qemu-user 7 passes waitid(P_PIDFD) through to the kernel, so Qt's QProcess concludes that
// clone(CLONE_PIDFD) works; the emulator then refuses that clone and Qt 5.15 does not fall back,
// so no child ever starts. The test programs of an emulated build answer Qt's probe the way a
// kernel without pidfds would, and QProcess uses plain fork(). This definition takes the place
// of the C library's for Qt too, because an executable's symbols come first.
extern "C" long syscall(long number, ...) noexcept
{
    va_list args;
    va_start(args, number);
    long a[6];
    for (long& arg : a)
        arg = va_arg(args, long);
    va_end(args);
    constexpr long kPidfd = 3; // P_PIDFD
    if (number == SYS_waitid && a[0] == kPidfd) {
        errno = EINVAL;
        return -1;
    }
    using Syscall = long (*)(long, ...);
    static const auto next = reinterpret_cast<Syscall>(dlsym(RTLD_NEXT, "syscall"));
    return next(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
#endif

QString childProcessesUnavailable()
{
    static const QString answer = [] {
        QProcess probe;
        probe.start(QStringLiteral("true"), QStringList());
        if (probe.waitForFinished(30000) && probe.exitStatus() == QProcess::NormalExit && probe.exitCode() == 0)
            return QString();
        return QStringLiteral("child processes cannot be started here: QProcess ran 'true' and got "
                              "exit status %1, code %2, error %3 (\"%4\")")
            .arg(int(probe.exitStatus()))
            .arg(probe.exitCode())
            .arg(int(probe.error()))
            .arg(probe.errorString());
    }();
    return answer;
}
