#pragma once

// Log helpers shared by the module's source files. Each file keeps its own logger.
#include "vrax/dbglog.h"
#include "vrax/trstring.h"

#include <QByteArray>
#include <QString>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

// The calling function as log lines name it.
#define ORVELLO_FUNCTION dbglog_scopedFunction(__PRETTY_FUNCTION__, "Orvello")

// "Enter <function>" at TRACE, optionally with ": " and the function's main argument.
#define ORVELLO_ENTER(logger) LOG4CPLUS_TRACE(logger, "Enter " << ORVELLO_FUNCTION)
#define ORVELLO_ENTER_ARG(logger, arg) LOG4CPLUS_TRACE(logger, "Enter " << ORVELLO_FUNCTION << ": " << arg)

// A translatable text in the calling function's translation context.
#define ORVELLO_TR(source, ...) TrString(trExtractContext(__PRETTY_FUNCTION__), source, ##__VA_ARGS__)

// Text from the network or the disk as it goes into a log line: control characters (C0, DEL,
// C1, the Unicode line and paragraph separators) are written as \n, \r, \t or \xHH / \u{HHHH},
// so such text can neither end the line nor forge one. Everything else is kept as it is.
inline QString escapedForLog(const QString& text)
{
    QString out;
    out.reserve(text.size());
    for (const QChar c : text) {
        const ushort code = c.unicode();
        const QChar::Category category = c.category();
        if (category != QChar::Other_Control && category != QChar::Separator_Line
            && category != QChar::Separator_Paragraph) {
            out += c;
        } else if (code == '\n') {
            out += QLatin1String("\\n");
        } else if (code == '\r') {
            out += QLatin1String("\\r");
        } else if (code == '\t') {
            out += QLatin1String("\\t");
        } else if (code < 0x100) {
            out += QStringLiteral("\\x%1").arg(code, 2, 16, QLatin1Char('0'));
        } else {
            out += QStringLiteral("\\u{%1}").arg(code, 4, 16, QLatin1Char('0'));
        }
    }
    return out;
}
// The same for bytes, read as UTF-8 (what is not UTF-8 becomes U+FFFD).
inline QString escapedForLog(const QByteArray& utf8)
{
    return escapedForLog(QString::fromUtf8(utf8));
}
