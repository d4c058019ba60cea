#include "vrax/trstring.h"

#include "model/cmerror.h"

#include <QCoreApplication>

TrArg::TrArg(int value, int fieldWidth, int base, QChar fill)
    : m_value(value), m_fieldWidth(fieldWidth), m_base(base), m_fill(fill)
{
}

TrArg::TrArg(const QString& value) : m_value(value) {}

QString TrArg::applyTo(const QString& text) const
{
    if (m_value.userType() == QMetaType::Int)
        return text.arg(m_value.toInt(), m_fieldWidth, m_base, m_fill);
    return text.arg(m_value.toString(), m_fieldWidth, m_fill);
}

bool operator==(const TrArg& a, const TrArg& b)
{
    return a.m_value == b.m_value && a.m_value.userType() == b.m_value.userType()
        && a.m_fieldWidth == b.m_fieldWidth && a.m_base == b.m_base && a.m_fill == b.m_fill;
}

TrString::TrString(const char* source) : m_source(QString::fromUtf8(source)) {}

TrString::TrString(const QString& context, const char* source, const QList<TrArg>& args)
    : m_context(context), m_source(QString::fromUtf8(source)), m_args(args)
{
}

QString TrString::toString() const
{
    const QByteArray context = m_context.toUtf8();
    const QByteArray source = m_source.toUtf8();
    QString text = m_context.isEmpty() ? m_source
                                       : QCoreApplication::translate(context.constData(), source.constData());
    for (const TrArg& arg : m_args)
        text = arg.applyTo(text);
    return text;
}

bool operator==(const TrString& a, const TrString& b)
{
    return a.m_context == b.m_context && a.m_source == b.m_source && a.m_args == b.m_args;
}

std::ostream& operator<<(std::ostream& os, const TrString& text)
{
    return os << text.toString().toUtf8().toStdString();
}

CMError::CMError(const TrString& message)
{
    insert(Name(), DefaultName());
    insert(Message(), QVariant::fromValue(message));
    insert(Title(), QVariant::fromValue(DefaultTitle()));
}

QString CMError::Name() { return QStringLiteral("name"); }
QString CMError::Message() { return QStringLiteral("message"); }
QString CMError::Title() { return QStringLiteral("title"); }
QString CMError::DefaultName() { return QStringLiteral("vrax.error"); }
TrString CMError::DefaultTitle() { return TrString(QStringLiteral("CMError"), "Error"); }

bool CMError::isSet() const
{
    return !value(Name()).toString().isEmpty();
}

QString CMError::name() const
{
    return value(Name()).toString();
}

namespace {
TrString trEntry(const QVariant& entry)
{
    if (entry.canConvert<TrString>() && entry.userType() == qMetaTypeId<TrString>())
        return entry.value<TrString>();
    return TrString(entry.toString().toUtf8().constData());
}
} // namespace

TrString CMError::message() const
{
    return trEntry(value(Message()));
}

TrString CMError::title() const
{
    return trEntry(value(Title()));
}

QString CMError::text() const
{
    return message().toString();
}

std::ostream& operator<<(std::ostream& os, const CMError& error)
{
    if (!error.isSet())
        return os << "no error";
    return os << '[' << error.name().toStdString() << "] " << error.message();
}
