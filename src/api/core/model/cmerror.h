#pragma once

#include "vrax/trstring.h"

#include <QMetaType>
#include <QVariantHash>

#include <ostream>

// An error record: a hash of named values. Empty (or without a name) means success.
class CMError : public QVariantHash
{
public:
    CMError() = default;
    // An error made from a message alone: default name and default title.
    explicit CMError(const TrString& message);

    // Keys of the record's entries.
    static QString Name();
    static QString Message();
    static QString Title();

    static QString DefaultName();
    static TrString DefaultTitle();

    // True when the entry under Name() converts to a non-empty string.
    bool isSet() const;
    QString name() const;
    TrString message() const;
    TrString title() const;
    // The message as a person reads it (translated, arguments applied).
    QString text() const;
};

std::ostream& operator<<(std::ostream& os, const CMError& error);

Q_DECLARE_METATYPE(CMError)
