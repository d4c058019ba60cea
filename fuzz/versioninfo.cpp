// The update configuration document from the service, taken as the updater takes it: the body
// parsed with VraxJson, read through VraxOrvelloVersionInfo, its version compared as text with
// the running one, its link made a URL for the download and its checksum compared with a
// digest. Every value is also written to a log line, as the updater logs them.
#include "vrax/dbglog.h"
#include "vrax/vraxjson.h"
#include "vrax/vraxorvelloversioninfo.h"
#include "vrax/vraxurl.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <log4cplus/nullappender.h>

#include <cstdio>
#include <cstdlib>

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("Orvello");

[[noreturn]] void fault(const char* what)
{
    std::fprintf(stderr, "fuzz_versioninfo: %s\n", what);
    std::abort();
}
} // namespace

// Qt has no frame pointers: only the full unwinder sees the Qt function that the leak
// suppressions name (tests/sanitizers/lsan.supp). ASAN_OPTIONS adds to this.
extern "C" const char* __asan_default_options()
{
    return "fast_unwind_on_malloc=0";
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    log4cplus::Logger::getRoot().addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
    logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray body(reinterpret_cast<const char*>(data), int(size));
    if (body.isEmpty())
        return 0;
    LOG4CPLUS_TRACE(logger, "OVM Config JSON:" << body);

    VraxError error;
    unsigned int errorOffset = 0;
    const QVariant parsed = VraxJson::parse(body, error, &errorOffset);
    const VraxOrvelloVersionInfo info(parsed.toHash());
    if (!error.isEmpty()) {
        LOG4CPLUS_ERROR(logger, "An error occurred during parsing of the config JSON: " << error);
        if (parsed.isValid() || errorOffset > size)
            fault("a failed parse gave a value or an offset past the body");
        if (!info.version().isEmpty() || !info.link().isEmpty() || !info.checksum().isEmpty())
            fault("a failed parse gave version info");
        return 0;
    }
    if (!parsed.isValid() || errorOffset != 0)
        fault("a successful parse gave no value or an error offset");

    LOG4CPLUS_DEBUG(logger, "Config version: " << info.version());
    LOG4CPLUS_DEBUG(logger, "Config link: " << info.link());
    const QString currentVersion = QStringLiteral("1.0.0");
    LOG4CPLUS_INFO(logger, "Current version:" << currentVersion);
    if (!(currentVersion < info.version())) {
        LOG4CPLUS_INFO(logger, "Version " << info.version() << " already on the device, ignoring...");
        return 0;
    }
    LOG4CPLUS_INFO(logger, "Downloading version " << info.version());
    const VraxUrl url = VraxUrl::fromEncoded(info.link());
    // What the HTTP client looks at before it requests anything.
    LOG4CPLUS_TRACE(logger, "Download from " << url.toString() << ", scheme " << url.toQUrl().scheme() << ", "
                                             << (url.isValid() ? "valid" : "not valid"));

    const QString digest = QStringLiteral("9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08");
    if (info.checksum() == digest)
        LOG4CPLUS_DEBUG(logger, "Checksum matches");
    return 0;
}
