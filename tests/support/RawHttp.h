#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QTcpSocket>

// An HTTP exchange exactly as written, for requests no ordinary client sends (a foreign Host,
// no Content-Length, a body of the wrong type): the caller's bytes go out as they are and the
// answer is read to the end of the connection. Needs Qt5::Network.
struct RawHttpAnswer
{
    int status = 0; // 0 when nothing came back
    QByteArray head;
    QByteArray body;
};

inline RawHttpAnswer rawHttp(int port, const QByteArray& request)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, quint16(port));
    RawHttpAnswer answer;
    if (!socket.waitForConnected(5000))
        return answer;
    socket.write(request);
    QByteArray all;
    while (socket.state() == QAbstractSocket::ConnectedState && socket.waitForReadyRead(20000))
        all += socket.readAll();
    all += socket.readAll();
    const int end = all.indexOf("\r\n\r\n");
    if (end < 0)
        return answer;
    answer.head = all.left(end);
    answer.body = all.mid(end + 4);
    answer.status = answer.head.mid(9, 3).toInt();
    return answer;
}
