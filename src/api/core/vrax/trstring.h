#pragma once

#include <QChar>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariant>

#include <ostream>

// One argument of a translatable text, applied to its next %N marker.
class TrArg
{
public:
    TrArg(int value, int fieldWidth = 0, int base = 10, QChar fill = QLatin1Char(' '));
    TrArg(const QString& value);

    const QVariant& value() const { return m_value; }
    QString applyTo(const QString& text) const;

    friend bool operator==(const TrArg& a, const TrArg& b);

private:
    QVariant m_value;
    int m_fieldWidth = 0;
    int m_base = 10;
    QChar m_fill = QLatin1Char(' ');
};

// A translatable text: a source text in a translation context, with arguments. It is
// translated (through the application's installed translators) when it is shown.
class TrString
{
public:
    TrString() = default;
    // A text without context; a null pointer gives an empty text. Also used for text that
    // comes from elsewhere (a track title), which no translator knows.
    TrString(const char* source);
    TrString(const QString& context, const char* source, const QList<TrArg>& args = {});

    const QString& context() const { return m_context; }
    const QString& source() const { return m_source; }
    const QList<TrArg>& args() const { return m_args; }
    bool isEmpty() const { return m_source.isEmpty(); }

    // Translated text with every argument applied.
    QString toString() const;

    friend bool operator==(const TrString& a, const TrString& b);
    friend bool operator!=(const TrString& a, const TrString& b) { return !(a == b); }

private:
    QString m_context;
    QString m_source;
    QList<TrArg> m_args;
};

// The translation context of a function: the class part of its signature
// ("CMError OrvelloWorker::maybeInitialize(bool)" gives "OrvelloWorker"), or the function's
// own name when it belongs to no class.
QString trExtractContext(const char* signature);

std::ostream& operator<<(std::ostream& os, const TrString& text);

Q_DECLARE_METATYPE(TrString)
