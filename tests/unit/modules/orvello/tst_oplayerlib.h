#pragma once

// The player library host (OPlayerLib) with the fake libraries of tests/fakes, one executable in
// four files: which file of the search list loads and what is skipped (tst_oplayerlib.cpp:
// searchList, damagedFileIsSkipped), what the library is handed at create and its token
// (tst_oplayerlib_create.cpp: creationRecord, tokenReader, tokenWriter), the library's loop and
// pairing (tst_oplayerlib_loop.cpp: mainLoopEnds, pairing, pairingAcrossTheLoopsEnd), and the
// install of a verified update (tst_oplayerlib_install.cpp: install,
// updateWithoutPersistentDirectory). The functions run in the order declared below.
#include "LogCapture.h"
#include "OPlayerTestUtil.h"
#include "TestPlatform.h"

#include "model/cmnode.h"
#include "vrax/vraxpaths.h"

#include <QDir>
#include <QObject>

namespace oplayerlibtest {

using namespace oplayertest;

inline const QString kBuildTreePath =
    QStringLiteral("../../build/Hollowkit-blobs-links/Orvello/lib/linux_x86_64/liboplayer-1.so");
inline const QStringList kSearchList = {kInstalledPath, QStringLiteral("/usr/lib64/liboplayer-1.so.1"),
                                        QStringLiteral("/usr/lib/liboplayer-1.so.1"), kBuildTreePath};

// A platform whose working directory is two levels below its temporary directory, so the
// build-tree entry of the search list lands inside it too.
struct Fixture
{
    explicit Fixture(const QVariantHash& settings = {}) : platform(settings)
    {
        QDir(platform.dir()).mkpath(QStringLiteral("a/b"));
        QDir::setCurrent(platform.dir() + QStringLiteral("/a/b"));
    }
    TestPlatform platform;
};

inline CMSetDataRequest pairRequest(const QString& code, CMVoidReply reply)
{
    VraxValue value;
    value.setString_(code);
    return CMSetDataRequest(VraxOrvelloSetPairCode(), QStringLiteral("value"), value.toVariant(), reply);
}

// "LEVEL message" of the host's lines.
inline QStringList hostLines(const LogCapture& log)
{
    QStringList out;
    for (const LogCapture::Line& line : log.lines()) {
        if (line.logger != QLatin1String("Orvello"))
            continue;
        const char* level = line.level == log4cplus::TRACE_LOG_LEVEL   ? "TRACE"
                            : line.level == log4cplus::DEBUG_LOG_LEVEL ? "DEBUG"
                            : line.level == log4cplus::INFO_LOG_LEVEL  ? "INFO"
                            : line.level == log4cplus::WARN_LOG_LEVEL  ? "WARN"
                                                                       : "ERROR";
        out << QString::fromLatin1(level) + QLatin1Char(' ') + line.message;
    }
    return out;
}

// The WARN and ERROR lines of the host, as hostLines gives them.
inline QStringList problemLines(const LogCapture& log)
{
    QStringList out;
    for (const QString& line : hostLines(log))
        if (line.startsWith(QLatin1String("WARN ")) || line.startsWith(QLatin1String("ERROR ")))
            out << line;
    return out;
}

// The lines match, in order; a trailing '*' in an expected line matches any rest.
inline bool linesMatch(const QStringList& actual, const QStringList& expected)
{
    if (actual.size() != expected.size())
        return false;
    for (int i = 0; i < actual.size(); ++i) {
        const QString& e = expected.at(i);
        if (e.endsWith(QLatin1Char('*')) ? !actual.at(i).startsWith(e.chopped(1)) : actual.at(i) != e)
            return false;
    }
    return true;
}

} // namespace oplayerlibtest

class TestOPlayerLib : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void searchList_data();
    void searchList();
    void creationRecord_data();
    void creationRecord();
    void tokenReader_data();
    void tokenReader();
    void tokenWriter();
    void mainLoopEnds();
    void pairing_data();
    void pairing();
    void damagedFileIsSkipped_data();
    void damagedFileIsSkipped();
    void install_data();
    void install();
    void pairingAcrossTheLoopsEnd_data();
    void pairingAcrossTheLoopsEnd();
    void updateWithoutPersistentDirectory();
};
