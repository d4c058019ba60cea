// Small value types of the platform interface: assertions, paths, typed values, log output.
#include "model/cmpath.h"
#include "vrax/dbglog.h"
#include "vrax/trstring.h"
#include "vrax/vraxassert.h"
#include "vrax/vraxvalue.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QStringList>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

void vraxAssertFailed(const char* expression, const char* file, int line)
{
    std::fprintf(stderr, "ASSERT: \"%s\" in file %s, line %d\n", expression, file, line);
    std::fflush(stderr);
    std::abort();
}

CMPath& CMPath::appendSubpath(const QString& subpath)
{
    m_path = m_path.isEmpty() ? subpath : m_path + QLatin1Char('/') + subpath;
    return *this;
}

bool CMPath::startsWith(const CMPath& prefix) const
{
    return m_path == prefix.m_path || m_path.startsWith(prefix.m_path + QLatin1Char('/'));
}

std::ostream& operator<<(std::ostream& os, const CMPath& path)
{
    return os << path.toString();
}

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

namespace {

// Bounds of the name in a signature: [begin, end) ends at the parameter list's '('.
bool findFunctionName(const std::string& sig, size_t& begin, size_t& end)
{
    int angle = 0;
    size_t paren = std::string::npos;
    for (size_t i = 0; i < sig.size(); ++i) {
        const char c = sig[i];
        if (c == '<' && sig.compare(i, 8, "<lambda(") != 0)
            ++angle;
        else if (c == '>' && angle > 0)
            --angle;
        else if (c == '(' && angle == 0) {
            // "operator()" names a function whose own parameter list follows.
            if (i >= 8 && sig.compare(i - 8, 8, "operator") == 0 && i + 1 < sig.size() && sig[i + 1] == ')') {
                ++i;
                continue;
            }
            paren = i;
            break;
        }
    }
    if (paren == std::string::npos)
        return false;
    size_t start = paren;
    angle = 0;
    while (start > 0) {
        const char c = sig[start - 1];
        if (c == '>')
            ++angle;
        else if (c == '<' && angle > 0)
            --angle;
        else if (c == ' ' && angle == 0)
            break;
        --start;
    }
    // Pointer and reference return types stick to the name ("const char* f()", "T& f()").
    while (start < paren && (sig[start] == '*' || sig[start] == '&'))
        ++start;
    begin = start;
    end = paren;
    return true;
}

} // namespace

std::string dbglog_scopedFunction(const char* signature, const char* scope)
{
    const std::string sig = signature ? signature : "";
    size_t begin = 0;
    size_t end = 0;
    std::string text = findFunctionName(sig, begin, end) ? sig.substr(begin) : sig;
    const std::string prefix = std::string(scope ? scope : "") + "::";
    if (prefix.size() > 2 && text.compare(0, prefix.size(), prefix) == 0)
        text.erase(0, prefix.size());
    return text;
}

QString trExtractContext(const char* signature)
{
    const std::string sig = signature ? signature : "";
    size_t begin = 0;
    size_t end = 0;
    if (!findFunctionName(sig, begin, end))
        return QString::fromStdString(sig);
    const std::string name = sig.substr(begin, end - begin);
    const size_t scope = name.rfind("::");
    return QString::fromStdString(scope == std::string::npos ? name : name.substr(0, scope));
}
