#pragma once

#include <QString>
#include <QTest>

// Empty when this process can start a child and see it end; otherwise why not. Tests that need
// child processes skip with this text instead of failing on a machine that cannot run them at all.
// Calling it also brings in the workaround that lets QProcess work under qemu-user.
QString childProcessesUnavailable();

#define SKIP_WITHOUT_CHILD_PROCESSES()                                                             \
    do {                                                                                           \
        const QString whyNot = childProcessesUnavailable();                                        \
        if (!whyNot.isEmpty())                                                                     \
            QSKIP(qPrintable(whyNot));                                                             \
    } while (false)
