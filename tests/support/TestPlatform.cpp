#include "TestPlatform.h"

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QSaveFile>
#include <QTest>

TestPlatform::TestPlatform(const QVariantHash& settings)
    : m_previousDir(QDir::currentPath()), m_platform(std::make_unique<vrax::Platform>())
{
    // Log lines go nowhere unless a test captures them.
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    if (root.getAllAppenders().empty())
        root.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
    if (!m_dir.isValid())
        qFatal("cannot create a temporary directory");
    QDir::setCurrent(m_dir.path());
    QSaveFile out(settingsFile());
    if (!out.open(QIODevice::WriteOnly))
        qFatal("cannot write the test settings");
    out.write(QJsonDocument(QJsonObject::fromVariantHash(settings)).toJson());
    out.commit();
    QString error;
    if (!m_platform->settings().open(settingsFile(), false, &error))
        qFatal("%s", qPrintable(error));
}

TestPlatform::~TestPlatform()
{
    m_platform.reset();
    QDir::setCurrent(m_previousDir);
}

QString TestPlatform::settingsFile() const
{
    return m_dir.filePath(QStringLiteral("settings.json"));
}

void TestPlatform::setSetting(const CMPath& path, const QVariant& plainValue)
{
    VraxValue typed;
    QString error;
    if (!vrax::SettingsStore::typedFromJson(QJsonValue::fromVariant(plainValue), &typed, &error)
        || !m_platform->settings().setValue(path, typed, &error))
        qFatal("%s", qPrintable(error));
}

QVariant TestPlatform::setting(const CMPath& path) const
{
    return m_platform->settings().value(path).toVariant();
}
