#pragma once

#include "vrax/vraxerror.h"

#include <QByteArray>
#include <QVariant>

// JSON text to and from plain Qt values (objects become QVariantHash, arrays QVariantList).
class VraxJson
{
public:
    // Parses a JSON document (an object or an array at the top). On success error is made
    // empty and the value is returned; on failure error says what is wrong and where, an
    // invalid QVariant is returned and, when errorOffset is given, it receives the byte
    // offset at which parsing failed.
    static QVariant parse(const QByteArray& json, VraxError& error, unsigned int* errorOffset = nullptr);
};
