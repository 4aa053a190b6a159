#pragma once

// A private nginx on a free loopback port for the content service client, every path in its own folder.
// In scenesDir(), name prefixes select behaviours: "slow-" and "noetag-" (no ETag) come at `slowRate`;
// "shifted-" is a 206 from byte 10 whatever the Range; "missing-" a 404 with 100 KB and "Retry-After:
// 120"; "moved302-" and "moved308-" redirect to the name without prefix; "refused-" is always a 412.

#include "ServerProcess.h"

#include <QDir>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <cstdio>
#include <signal.h>

class NginxServer {
public:
    explicit NginxServer(QString slowRate = QStringLiteral("1m"))
        : rate(std::move(slowRate))
    {
        if (QTcpServer probe; probe.listen(QHostAddress::LocalHost, 0)) port = probe.serverPort();  // a free port
        QDir().mkpath(scenesDir());
        QDir().mkpath(dir.path() + "/tmp");
        QFile err(docRoot() + "/errbody.html");
        if (err.open(QIODevice::WriteOnly)) err.write(QByteArray(100 * 1024, 'E'));
        const QString conf = QStringLiteral(R"(daemon off; master_process off; worker_processes 1;
pid %1/nginx.pid; error_log %1/error.log info;
events { worker_connections 64; }
http {
    log_format probe '$request_method $request_uri $status $body_bytes_sent range="$http_range" ifrange="$http_if_range" inm="$http_if_none_match" ua="$http_user_agent" ae="$http_accept_encoding"';
    access_log %1/access.log probe;
    client_body_temp_path %1/tmp/body; proxy_temp_path %1/tmp/proxy; fastcgi_temp_path %1/tmp/fastcgi;
    uwsgi_temp_path %1/tmp/uwsgi; scgi_temp_path %1/tmp/scgi;
    types { application/zip zip; } default_type application/octet-stream; sendfile on;
    server {
        listen 127.0.0.1:%2; root %1/www;
        location = /v1/scenes/manifest { default_type application/json; }
        location ~ ^/v1/scenes/slow- { limit_rate %3; sendfile off; output_buffers 1 32k; }
        location ~ ^/v1/scenes/noetag- { etag off; limit_rate %3; sendfile off; output_buffers 1 32k; }
        location ~ ^/v1/scenes/shifted-(.*)$ {
            proxy_pass http://127.0.0.1:%2/raw/shifted-$1;
            proxy_set_header Range "bytes=10-";
            proxy_set_header If-Range "";
        }
        location /raw/ { alias %1/www/v1/scenes/; }
        location ~ ^/v1/scenes/missing- { error_page 404 /errbody.html; }
        location ~ ^/v1/scenes/moved302-(.*)$ { return 302 /v1/scenes/$1; }
        location ~ ^/v1/scenes/moved308-(.*)$ { return 308 /v1/scenes/$1; }
        location ~ ^/v1/scenes/refused- { return 412; }
        location = /errbody.html { internal; add_header Retry-After 120 always; }
    }
}
)")
                                 .arg(dir.path(), QString::number(port), rate);
        QFile f(dir.path() + "/nginx.conf");
        if (f.open(QIODevice::WriteOnly)) f.write(conf.toUtf8());
    }
    ~NginxServer() { stop(); }

    // Whether it answers on its port; if not, why is on standard error.
    bool start()
    {
        const QString d = dir.path();
        process.launch("/usr/sbin/nginx", {"-p", d, "-c", d + "/nginx.conf", "-e", d + "/error.log"}, d + "/nginx.log");
        QString why;
        const bool up = process.waitReady("nginx", std::chrono::seconds(10), why, [&] {
            QTcpSocket socket;
            socket.connectToHost(QHostAddress::LocalHost, port);
            return socket.waitForConnected(100);
        });
        if (!up) std::fprintf(stderr, "%s\n", qPrintable(why));
        return up;
    }

    // SIGKILL: open connections drop mid-transfer, as with a vanished server.
    void stop()
    {
        if (process.state() == QProcess::NotRunning) return;
        ::kill(pid_t(process.processId()), SIGKILL);
        process.waitForFinished(5000);
    }

    QString baseURL() const { return QStringLiteral("http://127.0.0.1:%1/").arg(port); }
    QString docRoot() const { return dir.path() + QStringLiteral("/www"); }
    QString scenesDir() const { return docRoot() + QStringLiteral("/v1/scenes"); }

    // One line per request: method uri status bytes range="…" ifrange="…" inm="…" ua="…" ae="…".
    QStringList accessLines() const
    {
        QFile f(dir.path() + QStringLiteral("/access.log"));
        if (!f.open(QIODevice::ReadOnly)) return {};
        return QString::fromUtf8(f.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }
    QStringList accessLinesFor(const QString &uriPart) const
    {
        QStringList out;
        for (const QString &line : accessLines())
            if (line.section(QLatin1Char(' '), 1, 1).contains(uriPart)) out.append(line);
        return out;
    }
    static QString statusOf(const QString &line) { return line.section(QLatin1Char(' '), 2, 2); }

    quint16 port = 0;

private:
    QTemporaryDir dir;
    QString rate;
    ServerProcess process;
};
