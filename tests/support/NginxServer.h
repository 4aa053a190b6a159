#pragma once

// A private nginx on a free loopback port, for tests and benchmarks of the content service
// client. It runs in the foreground as the current user with every path (pid, logs, temp files,
// document root) inside its own temporary folder, and is killed by stop() or the destructor.
//
// Document root: docRoot() + "/v1/scenes/…". Besides plain static files, file names select
// behaviours by prefix:
//   "slow-…"    sent at `slowRate` bytes per second (limit_rate)
//   "noetag-…"  sent without an ETag, also at `slowRate`
//   "shifted-…" answered 206 from byte 10 whatever the Range asked (a misbehaving server)
//   "missing-…" 404 with a 100 KB body and "Retry-After: 120"
//   "moved302-…", "moved308-…" redirect to the same name without the prefix
//   "refused-…" always 412 (precondition failed)

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <signal.h>

class NginxServer {
public:
    explicit NginxServer(QString slowRate = QStringLiteral("1m"))
        : rate(std::move(slowRate))
    {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        port = probe.serverPort();
        probe.close();
        QDir().mkpath(docRoot() + QStringLiteral("/v1/scenes"));
        QDir().mkpath(dir.path() + QStringLiteral("/tmp"));
        QFile err(docRoot() + QStringLiteral("/errbody.html"));
        err.open(QIODevice::WriteOnly);
        err.write(QByteArray(100 * 1024, 'E'));
        writeConfig();
    }
    ~NginxServer() { stop(); }

    bool start()
    {
        process.setProgram(QStringLiteral("/usr/sbin/nginx"));
        process.setArguments({QStringLiteral("-p"), dir.path(), QStringLiteral("-c"),
                              dir.path() + QStringLiteral("/nginx.conf"), QStringLiteral("-e"),
                              dir.path() + QStringLiteral("/error.log")});
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start();
        if (!process.waitForStarted(5000)) return false;
        for (int i = 0; i < 500; ++i) {
            QTcpSocket socket;
            socket.connectToHost(QHostAddress::LocalHost, port);
            if (socket.waitForConnected(100)) return true;
            if (process.state() == QProcess::NotRunning) return false;
            QThread::msleep(10);
        }
        return false;
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
    void writeConfig()
    {
        const QString d = dir.path();
        const QString conf = QStringLiteral(R"(daemon off;
master_process off;
worker_processes 1;
pid %1/nginx.pid;
error_log %1/error.log info;
events { worker_connections 64; }
http {
    log_format probe '$request_method $request_uri $status $body_bytes_sent range="$http_range" ifrange="$http_if_range" inm="$http_if_none_match" ua="$http_user_agent" ae="$http_accept_encoding"';
    access_log %1/access.log probe;
    client_body_temp_path %1/tmp/body;
    proxy_temp_path %1/tmp/proxy;
    fastcgi_temp_path %1/tmp/fastcgi;
    uwsgi_temp_path %1/tmp/uwsgi;
    scgi_temp_path %1/tmp/scgi;
    types { application/zip zip; }
    default_type application/octet-stream;
    sendfile on;
    server {
        listen 127.0.0.1:%2;
        root %1/www;
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
                                 .arg(d)
                                 .arg(port)
                                 .arg(rate);
        QFile f(d + QStringLiteral("/nginx.conf"));
        f.open(QIODevice::WriteOnly);
        f.write(conf.toUtf8());
    }

    QTemporaryDir dir;
    QString rate;
    QProcess process;
};
