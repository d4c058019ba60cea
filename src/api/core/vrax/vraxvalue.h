#pragma once

#include <QMetaType>
#include <QString>
#include <QVariant>
#include <QVariantHash>

#include <ostream>

// A typed value: a hash keyed by its type ("i32_", "string_", "bool_"). A value nobody set
// is an empty hash, whose accessors give 0, an empty string and false.
class VraxValue
{
public:
    VraxValue() = default;
    explicit VraxValue(const QVariantHash& hash) : m_hash(hash) {}

    static QString I32Key() { return QStringLiteral("i32_"); }
    static QString StringKey() { return QStringLiteral("string_"); }
    static QString BoolKey() { return QStringLiteral("bool_"); }

    qint32 i32_() const { return m_hash.value(I32Key()).toInt(); }
    QString string_() const { return m_hash.value(StringKey()).toString(); }
    bool bool_() const { return m_hash.value(BoolKey()).toBool(); }

    void setI32_(qint32 value) { m_hash.insert(I32Key(), value); }
    void setString_(const QString& value) { m_hash.insert(StringKey(), value); }
    void setBool_(bool value) { m_hash.insert(BoolKey(), value); }

    bool isEmpty() const { return m_hash.isEmpty(); }
    const QVariantHash& hash() const { return m_hash; }
    QVariant toVariant() const { return m_hash; }

    friend bool operator==(const VraxValue& a, const VraxValue& b) { return a.m_hash == b.m_hash; }
    friend bool operator!=(const VraxValue& a, const VraxValue& b) { return a.m_hash != b.m_hash; }

protected:
    QVariantHash m_hash;
};

// The platform's typed value record as read from a QVariant's hash.
class VraxHash : public VraxValue
{
public:
    VraxHash() = default;
    explicit VraxHash(const QVariantHash& hash) : VraxValue(hash) {}
};

std::ostream& operator<<(std::ostream& os, const VraxValue& value);

Q_DECLARE_METATYPE(VraxValue)
Q_DECLARE_METATYPE(VraxHash)
