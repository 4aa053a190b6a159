#pragma once

// An HTTP server on loopback whose answer to each request the test decides: a body, late or not, a dropped
// connection, or a hostile answer that never ends, trickles, or sends more than it announced.

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <functional>
#include <memory>

class LoopbackHttp : public QObject {
public:
    struct Reply {
        QByteArray body;  // null: the connection is dropped
        int status = 200, delayMs = 0;
        // Then `more` bytes of filler (-1: no end), `chunk` every `intervalMs`; Content-Length: body + more,
        // or `announced` (-1: none).
        qint64 more = 0, chunk = 64 * 1024;
        int intervalMs = 0;
        qint64 announced = -2;
    };

    // Called once per request with its target ("/path?query").
    std::function<Reply(const QString &target)> answer = [](const QString &) { return Reply{"", 404}; };
    QStringList targets;  // in arrival order
    qint64 sent = 0;      // filler bytes written, all requests

    LoopbackHttp()
    {
        server.listen(QHostAddress::LocalHost, 0);
        connect(&server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = server.nextPendingConnection()) {
                auto request = std::make_shared<QByteArray>();
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
                connect(socket, &QTcpSocket::readyRead, this, [this, socket, request] {
                    request->append(socket->readAll());
                    if (!request->contains("\r\n\r\n")) return;
                    const QByteArray line = request->left(request->indexOf("\r\n"));
                    targets.append(QString::fromLatin1(line.split(' ').value(1)));
                    const Reply reply = answer(targets.last());
                    QTimer::singleShot(reply.delayMs, socket, [this, socket, reply] {
                        if (reply.body.isNull()) return socket->abort();
                        socket->write(head(reply) + reply.body);
                        if (reply.more == 0) return socket->disconnectFromHost();
                        stream(socket, reply);
                    });
                });
            }
        });
    }

    QString url(const QString &path) const
    {
        return QStringLiteral("http://127.0.0.1:%1%2").arg(server.serverPort()).arg(path);
    }

private:
    static QByteArray head(const Reply &r)
    {
        const qint64 length = r.announced != -2 ? r.announced : r.more < 0 ? -1 : r.body.size() + r.more;
        QByteArray h = "HTTP/1.1 " + QByteArray::number(r.status) + (r.status < 400 ? " OK" : " Error") + "\r\n";
        if (length >= 0) h += "Content-Length: " + QByteArray::number(length) + "\r\n";
        return h + "Connection: close\r\n\r\n";
    }

    // Filler at the reply's pace, never more than a few chunks ahead of what the client reads.
    void stream(QTcpSocket *socket, const Reply &reply)
    {
        auto *timer = new QTimer(socket);
        auto left = std::make_shared<qint64>(reply.more);
        connect(timer, &QTimer::timeout, socket, [this, socket, timer, left, reply] {
            if (socket->state() != QAbstractSocket::ConnectedState) return timer->stop();
            if (socket->bytesToWrite() > 4 * reply.chunk) return;
            const qint64 n = *left < 0 ? reply.chunk : std::min(reply.chunk, *left);
            socket->write(QByteArray(n, 'x'));
            sent += n;
            if (*left > 0 && (*left -= n) == 0) {
                timer->stop();
                socket->disconnectFromHost();
            }
        });
        timer->start(reply.intervalMs);
    }

    QTcpServer server;
};
