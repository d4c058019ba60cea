#pragma once

#include <QByteArray>
#include <QString>

class QProcess;

// How the rig reads the devkit's programs on loopback: the line a child prints once it listens,
// and one JSON request to a port, both waited for on the calling thread.

// Waits up to 15 s for the first line of the child's standard output, "PREFIX 127.0.0.1:PORT",
// and returns PORT; 0 with the reason in error when the child ended, did not start, said
// something else or took too long.
int readListeningPort(QProcess* process, const QString& prefix, QString* error);

struct LoopbackReply
{
    int status = 0;   // HTTP status, 0 when nothing answered within 40 s
    QByteArray body;
};

// One request with a JSON body to http://127.0.0.1:port/path, waited for in a nested event loop.
LoopbackReply loopbackRequest(int port, const QByteArray& method, const QString& path, const QByteArray& body);
