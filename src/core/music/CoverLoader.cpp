#include "core/music/CoverLoader.h"

#include "core/music/CoverArt.h"

#include <QBuffer>
#include <QFile>
#include <QImageReader>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QtConcurrent/QtConcurrentRun>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

CoverLoader::CoverLoader(QNetworkAccessManager &network, QObject *parent)
    : QObject(parent)
    , network(network)
{
}

CoverLoader::~CoverLoader() { cancel(); }

void CoverLoader::cancel()
{
    ++generation;
    if (reply) {
        reply->disconnect(this);
        reply->abort();
        reply->deleteLater();
        reply = nullptr;
    }
}

void CoverLoader::load(const QUrl &url)
{
    cancel();
    const QString scheme = url.scheme().toLower();
    if (url.isLocalFile()) {
        const QString path = url.toLocalFile();
        finishOnWorker([path](QString &failure) { return readFile(path, maxFileBytes, failure); });
        return;
    }
    if (scheme != QLatin1String("http") && scheme != QLatin1String("https")) {
        deliver(generation, QImage(), QStringLiteral("esquema não aceito"));
        return;
    }
    QNetworkRequest request(url);
    TransferGuard::prepare(request);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    reply = network.get(request);
    TransferGuard::collect(reply, http);
    connect(reply, &QNetworkReply::finished, this, [this, r = reply.data()] {
        r->deleteLater();
        reply = nullptr;
        QString failure = TransferGuard::failureOf(r);
        if (failure.isEmpty() && r->error() != QNetworkReply::NoError) failure = r->errorString();
        if (!failure.isEmpty()) return deliver(generation, QImage(), failure);
        finishOnWorker([body = TransferGuard::bodyOf(r)](QString &) { return body; });
    });
}

void CoverLoader::finishOnWorker(std::function<QByteArray(QString &)> read)
{
    const unsigned asked = generation;
    QPointer<CoverLoader> self(this);
    // Nothing waits for the future: a superseded load finishes on its own and is dropped.
    (void)QtConcurrent::run([self, asked, read = std::move(read)] {
        QString failure;
        const QByteArray bytes = read(failure);
        const QImage image = failure.isEmpty() ? decode(bytes, CoverArt::maxCoverSide, failure) : QImage();
        QMetaObject::invokeMethod(
            self.data(),
            [self, asked, image, failure] {
                if (self) self->deliver(asked, image, failure);
            },
            Qt::QueuedConnection);
    });
}

void CoverLoader::deliver(unsigned asked, const QImage &image, const QString &failure)
{
    if (asked != generation) return;
    if (onLoaded) onLoaded(image, failure);
}

QByteArray CoverLoader::readFile(const QString &path, qint64 maxBytes, QString &failure)
{
    // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer for ever.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        failure = QString::fromLocal8Bit(std::strerror(errno));
        return {};
    }
    QByteArray bytes;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        failure = QStringLiteral("não é um arquivo comum");
    } else if (st.st_size > maxBytes) {
        failure = QStringLiteral("arquivo de %1 bytes, o limite é %2").arg(qint64(st.st_size)).arg(maxBytes);
    } else {
        // The size may change under us: never read past the cap, whatever fstat said.
        bytes.resize(maxBytes + 1);
        qint64 got = 0;
        while (got < bytes.size()) {
            const ssize_t n = ::read(fd, bytes.data() + got, size_t(bytes.size() - got));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            got += n;
        }
        if (got > maxBytes) {
            failure = QStringLiteral("arquivo passou de %1 bytes").arg(maxBytes);
            got = 0;
        }
        bytes.resize(got);
        bytes.squeeze();
    }
    ::close(fd);
    return bytes;
}

QImage CoverLoader::decode(const QByteArray &bytes, int maxSide, QString &failure)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    reader.setAutoTransform(true);
    const QSize size = reader.size();
    if (size.isValid() && qint64(size.width()) * size.height() > maxPixels) {
        failure = QStringLiteral("imagem de %1×%2").arg(size.width()).arg(size.height());
        return {};
    }
    // Formats that can decode smaller (JPEG) do so; others are scaled after.
    if (size.isValid() && std::max(size.width(), size.height()) > maxSide)
        reader.setScaledSize(size.scaled(maxSide, maxSide, Qt::KeepAspectRatio));
    reader.setAllocationLimit(int(maxPixels * 4 / (1024 * 1024)) + 1);
    QImage image = reader.read();
    if (image.isNull()) {
        failure = reader.errorString();
        return {};
    }
    if (std::max(image.width(), image.height()) > maxSide)
        image = image.scaled(maxSide, maxSide, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    return image;
}
