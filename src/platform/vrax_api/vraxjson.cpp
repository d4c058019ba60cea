// JSON, URL and error helpers of the platform interface.
#include "vrax/vraxerror.h"
#include "vrax/vraxjson.h"
#include "vrax/vraxurl.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

#include <algorithm>

VraxUrl VraxUrl::fromEncoded(const QByteArray& encoded)
{
    return VraxUrl(QUrl::fromEncoded(encoded.trimmed(), QUrl::TolerantMode));
}

VraxUrl VraxUrl::fromEncoded(const QString& encoded)
{
    return fromEncoded(encoded.toUtf8());
}

QString VraxUrl::toString() const
{
    return QString::fromUtf8(m_url.toEncoded());
}

std::ostream& operator<<(std::ostream& os, const VraxUrl& url)
{
    const QByteArray text = url.toQUrl().toEncoded();
    return os.write(text.constData(), text.size());
}

std::ostream& operator<<(std::ostream& os, const VraxError& error)
{
    const QByteArray text = error.message().toUtf8();
    return os.write(text.constData(), text.size());
}

QVariant VraxJson::parse(const QByteArray& json, VraxError& error, unsigned int* errorOffset)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        // Qt places an unterminated string one past the end of the text.
        const int offset = std::min(parseError.offset, json.size());
        error = VraxError(QStringLiteral("%1 at offset %2").arg(parseError.errorString()).arg(offset));
        if (errorOffset)
            *errorOffset = static_cast<unsigned int>(offset);
        return QVariant();
    }
    error.clear();
    if (errorOffset)
        *errorOffset = 0;
    return document.isObject() ? QVariant(document.object().toVariantHash()) : QVariant(document.array().toVariantList());
}
