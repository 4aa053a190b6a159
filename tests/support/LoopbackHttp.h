#pragma once

// An HTTP server on loopback whose answer to each request the test decides: a body with its
// status, optionally late, or a connection dropped without a byte of answer.

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
        int status = 200;
        int delayMs = 0;
    };

    // Called once per request with its target ("/path?query").
    std::function<Reply(const QString &target)> answer = [](const QString &) { return Reply{"", 404}; };
    QStringList targets;  // in arrival order

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
                    QTimer::singleShot(reply.delayMs, socket, [socket, reply] {
                        if (reply.body.isNull()) return socket->abort();
                        socket->write(response(reply));
                        socket->disconnectFromHost();
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
    static QByteArray response(const Reply &r)
    {
        return "HTTP/1.1 " + QByteArray::number(r.status) + (r.status < 400 ? " OK" : " Error") +
               "\r\nContent-Length: " + QByteArray::number(r.body.size()) + "\r\nConnection: close\r\n\r\n" + r.body;
    }

    QTcpServer server;
};
