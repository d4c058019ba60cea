#pragma once

#include "model/cmpath.h"
#include "vrax_api/vraxplatform.h"

#include <QString>
#include <QTemporaryDir>
#include <QVariantHash>

#include <memory>

// A fresh desktop platform for one test: its own temporary working directory (made current
// while it lives) and a settings file in it, filled from the given settings.
class TestPlatform
{
public:
    explicit TestPlatform(const QVariantHash& settings = {});
    ~TestPlatform();

    vrax::Platform& platform() { return *m_platform; }
    QString dir() const { return m_dir.path(); }
    QString settingsFile() const;

    void setSetting(const CMPath& path, const QVariant& plainValue);
    QVariant setting(const CMPath& path) const;

private:
    QTemporaryDir m_dir;
    QString m_previousDir;
    std::unique_ptr<vrax::Platform> m_platform;
};
