#include "OrvelloUI.h"

#include "OrvelloLogging.h"

#include "model/cmnode.h"
#include "model/cmworker.h"
#include "vrax/vraxpaths.h"

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("Orvello");

bool allLetters(const QString& text)
{
    for (const QChar c : text)
        if (!c.isLetter())
            return false;
    return true;
}

// The code to pair with, or a null string when the text is not a pairing code.
QString normalisedPairingCode(const QString& text)
{
    if (text.size() == 6 && allLetters(text))
        return text;
    if (text.size() == 7 && text.at(3) == QLatin1Char('-')) {
        const QString code = text.left(3) + text.mid(4);
        if (allLetters(code))
            return code;
    }
    return QString();
}
} // namespace

OrvelloUI::OrvelloUI(CMNodes* nodes, const CMPath& path)
    : QObject(nullptr)
    , m_listNode(CMListRowsNode::create(nodes, path))
    , m_pairCodeNode(CMValueNode::create(nodes, CMPath(path).appendSubpath(QStringLiteral("uiPairCode")), nullptr))
{
    ORVELLO_ENTER(logger);
    m_pairCodeNode->setTitle(ORVELLO_TR("Pairing Code"));
    m_pairCodeNode->setValidate(this, &OrvelloUI::on_pairingCode_validate, Qt::QueuedConnection);
    VraxHash empty;
    empty.setString_(QString());
    m_pairCodeNode->setValue(empty);
    m_listNode->setTitle(ORVELLO_TR("Orvello Streams"));
    m_listNode->rowsAppend(m_pairCodeNode->path());
}

void OrvelloUI::on_pairingCode_validate(const CMSetDataRequest& request, const VraxValue& value)
{
    ORVELLO_ENTER_ARG(logger, value);
    const QString code = normalisedPairingCode(value.string_());
    if (code.isNull()) {
        request.reply().setError(CMError(ORVELLO_TR("Invalid pairing code")));
        return;
    }
    VraxHash pairingCode;
    pairingCode.setString_(code);
    CMRoot()->invoke(VraxOrvelloSetPairCode(), pairingCode, request.reply());
}
