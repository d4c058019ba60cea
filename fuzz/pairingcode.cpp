// Whatever a person (or a script on the control API) types into the pairing page: the bytes
// are set on the pairing-code row through the platform, as the control API sets them, and go
// through the page's validate handler to the pairing action or back as an error. Every code is
// answered exactly once, and only a six-letter code (with at most the hyphen after the third
// letter taken out) reaches the action.
#include "LogCapture.h"
#include "OrvelloUI.h"

#include "model/cmnode.h"
#include "model/cmnodes.h"
#include "model/cmworker.h"
#include "vrax/vraxpaths.h"
#include "vrax_api/vraxplatform.h"

#include <QCoreApplication>
#include <QDeadlineTimer>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

[[noreturn]] void fault(const char* what, const QString& code)
{
    std::fprintf(stderr, "fuzz_pairingcode: %s (code \"%s\", %d UTF-16 units)\n", what, qPrintable(code),
                 int(code.size()));
    std::abort();
}

// Stands in for the worker's pairing action: keeps what reaches it.
class PairingAction : public QObject
{
public:
    QList<CMSetDataRequest> requests;
    void onInvoke(const CMSetDataRequest& request) { requests << request; }
};

struct Device
{
    vrax::Platform platform;
    CMNodes nodes;
    OrvelloUI ui{&nodes, VraxOrvelloBrowsePath()};
    PairingAction action;
    CMValueNode* row = nullptr;
    LogCapture log;
};

std::unique_ptr<QCoreApplication> s_app;
std::unique_ptr<Device> s_device;

// The first byte says how the rest is text: UTF-8 as JSON brings it, or raw UTF-16 units
// (unpaired surrogates included, as a \ud800 escape in JSON gives them).
QString codeFrom(const uint8_t* data, size_t size)
{
    if (size == 0)
        return QString();
    if (data[0] & 1) {
        QString units((int(size) - 1) / 2, Qt::Uninitialized);
        std::memcpy(units.data(), data + 1, std::size_t(units.size()) * sizeof(QChar));
        return units;
    }
    return QString::fromUtf8(reinterpret_cast<const char*>(data + 1), int(size - 1));
}

bool sixLetters(const QString& code)
{
    if (code.size() != 6)
        return false;
    for (const QChar c : code)
        if (!c.isLetter())
            return false;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    s_app = std::make_unique<QCoreApplication>(*argc, *argv);
    s_device = std::make_unique<Device>();
    s_device->row = qobject_cast<CMValueNode*>(s_device->platform.node(CMPath(QStringLiteral("orvello/browse/uiPairCode"))));
    if (!s_device->row)
        fault("no pairing-code row", QString());
    CMActivateNode::create(&s_device->nodes, VraxOrvelloSetPairCode())
        ->setInvoke(&s_device->action, &PairingAction::onInvoke, Qt::QueuedConnection);
    std::atexit([] {
        s_device.reset();
        s_app.reset();
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Device& device = *s_device;
    const QString entered = codeFrom(data, size);
    const VraxValue before = device.row->value();
    device.log.clear();
    device.action.requests.clear();

    VraxHash value;
    value.setString_(entered);
    CMReply<QVariant> reply;
    CMRoot()->setValue(device.row->path(), value, reply);
    const QDeadlineTimer deadline(10000);
    while (!reply.isFinished() && device.action.requests.isEmpty()) {
        if (deadline.hasExpired())
            fault("the code was never answered", entered);
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    QCoreApplication::processEvents();

    if (device.action.requests.isEmpty()) {
        if (reply.error().text() != QLatin1String("Invalid pairing code"))
            fault("a refused code was not answered with \"Invalid pairing code\"", entered);
    } else {
        if (device.action.requests.size() != 1 || reply.isFinished())
            fault("a code went to the action and was answered besides", entered);
        const CMSetDataRequest& request = device.action.requests.first();
        if (!(request.reply() == reply))
            fault("the action got another reply than the caller's", entered);
        const QString code = VraxValue(request.data().toHash()).string_();
        const bool asTyped = code == entered;
        const bool hyphenTakenOut = entered.size() == 7 && entered.at(3) == QLatin1Char('-')
                                    && code == entered.left(3) + entered.mid(4);
        if (!sixLetters(code) || !(asTyped || hyphenTakenOut))
            fault("the action got a code that is not the typed six letters", entered);
        request.reply().setValue(QVariant());
    }
    if (!(device.row->value() == before))
        fault("validating changed the row's value", entered);
    if (!device.log.messagesAtLeast(log4cplus::WARN_LOG_LEVEL).isEmpty())
        fault(qPrintable(QStringLiteral("a warning was logged: ") + device.log.dump()), entered);
    if (device.log.messages(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("Orvello")).size() != 1)
        fault("not one entry line for the code", entered);
    return 0;
}
