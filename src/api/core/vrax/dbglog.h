#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <ostream>
#include <string>

// The function part of a compiler signature (__PRETTY_FUNCTION__) as log lines show it: the
// return type is dropped, the qualified name and parameter list stay, lambdas keep their
// enclosing function ("A::A(int)::<lambda(int, int)>"). A leading "scope::" qualifier is
// dropped, so components that live in a namespace of their own name print short names.
std::string dbglog_scopedFunction(const char* signature, const char* scope);

// Stream output of Qt values for log lines (UTF-8).
std::ostream& operator<<(std::ostream& os, const QString& text);
std::ostream& operator<<(std::ostream& os, const QByteArray& bytes);
// Compact JSON for hashes and lists, plain text for scalars; "<invalid>" for no value.
std::ostream& operator<<(std::ostream& os, const QVariant& value);
