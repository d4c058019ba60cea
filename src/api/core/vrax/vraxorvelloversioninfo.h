#pragma once

#include "vrax/vraxvalue.h"

#include <QString>
#include <QVariantHash>

// The update configuration document of the Orvello Streams service, viewed through the parsed
// JSON object: {"version": "...", "link": "...", "checksum": "..."}. Missing or non-text
// entries read as empty text.
class VraxOrvelloVersionInfo : public VraxHash
{
public:
    VraxOrvelloVersionInfo() = default;
    explicit VraxOrvelloVersionInfo(const QVariantHash& hash) : VraxHash(hash) {}

    static QString VersionKey() { return QStringLiteral("version"); }
    static QString LinkKey() { return QStringLiteral("link"); }
    static QString ChecksumKey() { return QStringLiteral("checksum"); }

    // The library version the service offers.
    QString version() const { return text(VersionKey()); }
    // The encoded URL from which that version is downloaded.
    QString link() const { return text(LinkKey()); }
    // Lowercase hexadecimal SHA-256 digest of the library file.
    QString checksum() const { return text(ChecksumKey()); }

private:
    QString text(const QString& key) const
    {
        const QVariant value = m_hash.value(key);
        return value.userType() == QMetaType::QString ? value.toString() : QString();
    }
};
