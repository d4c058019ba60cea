// How platform values read in log lines: text as its UTF-8 bytes, hashes and typed values as
// compact JSON with sorted keys.
#include "vrax/dbglog.h"
#include "vrax/trstring.h"
#include "vrax/vraxvalue.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QStringList>

#include <algorithm>

std::ostream& operator<<(std::ostream& os, const VraxValue& value)
{
    return os << value.toVariant();
}

std::ostream& operator<<(std::ostream& os, const QString& text)
{
    return os << text.toUtf8().toStdString();
}

std::ostream& operator<<(std::ostream& os, const QByteArray& bytes)
{
    return os.write(bytes.constData(), bytes.size());
}

namespace {

QString jsonQuoted(const QString& text)
{
    QByteArray doc = QJsonDocument(QJsonArray{QJsonValue(text)}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(doc.mid(1, doc.size() - 2));
}

QString variantText(const QVariant& value, bool nested);

QString hashText(const QVariantHash& hash)
{
    QStringList keys = hash.keys();
    std::sort(keys.begin(), keys.end());
    QStringList items;
    for (const QString& key : keys)
        items << jsonQuoted(key) + QLatin1Char(':') + variantText(hash.value(key), true);
    return QLatin1Char('{') + items.join(QLatin1Char(',')) + QLatin1Char('}');
}

QString variantText(const QVariant& value, bool nested)
{
    if (!value.isValid())
        return nested ? QStringLiteral("null") : QStringLiteral("<invalid>");
    if (value.userType() == qMetaTypeId<TrString>())
        return jsonQuoted(value.value<TrString>().toString());
    if (value.userType() == qMetaTypeId<VraxValue>())
        return hashText(value.value<VraxValue>().hash());
    if (value.userType() == qMetaTypeId<VraxHash>())
        return hashText(value.value<VraxHash>().hash());
    switch (value.userType()) {
    case QMetaType::QVariantHash:
        return hashText(value.toHash());
    case QMetaType::QVariantMap: {
        const QVariantMap map = value.toMap();
        return hashText(QVariantHash(map.begin(), map.end()));
    }
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        QStringList items;
        for (const QVariant& item : value.toList())
            items << variantText(item, true);
        return QLatin1Char('[') + items.join(QLatin1Char(',')) + QLatin1Char(']');
    }
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::Double:
        return value.toString();
    default:
        return nested ? jsonQuoted(value.toString()) : value.toString();
    }
}

} // namespace

std::ostream& operator<<(std::ostream& os, const QVariant& value)
{
    return os << variantText(value, false);
}
