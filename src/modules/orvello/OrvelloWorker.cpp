#include "OrvelloWorker.h"

#include "OrvelloLogging.h"
#include "OrvelloUI.h"

#include "model/cmnode.h"
#include "vrax/vraxpaths.h"

#include <QDir>
#include <QFileInfo>

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("Orvello");

const QString kScratchDirectory = QStringLiteral("/tmp/orvello");
} // namespace

extern "C" __attribute__((visibility("default"))) CMWorker* worker_create(void* /*reserved*/,
                                                                         const QVariantHash* config)
{
    return new OrvelloWorker(config ? *config : QVariantHash());
}

OrvelloWorker::OrvelloWorker(const QVariantHash& config)
    : CMNodesWorker(config, QStringLiteral("OrvelloWorker"))
    , m_initialized(false)
    , m_ui(new OrvelloUI(nodes(), VraxOrvelloBrowsePath()))
    , m_sdkVersionNode(CMValueNode::create(nodes(), VraxOrvelloSdkVersion(), nullptr))
{
    ORVELLO_ENTER(logger);
    m_sdkVersionNode->setTitle(ORVELLO_TR("Orvello SDK version number"));
    if (!prepareDirectory(kScratchDirectory)) {
        LOG4CPLUS_ERROR(logger, "Can not init OrvelloWorker without " << kScratchDirectory << " dir");
        return;
    }
}

OrvelloWorker::~OrvelloWorker()
{
    delete m_sdkVersionNode;
    delete m_ui;
}

bool OrvelloWorker::prepareDirectory(const QString& path) const
{
    ORVELLO_ENTER_ARG(logger, path);
    if (!QDir(path).exists() && !QDir().mkpath(path)) {
        LOG4CPLUS_ERROR(logger, "Can not create directory :" << path);
        return false;
    }
    const QFileInfo info(path);
    if (!info.isWritable()) {
        LOG4CPLUS_ERROR(logger, "Can not write to " << info.absoluteFilePath());
        return false;
    }
    return true;
}
