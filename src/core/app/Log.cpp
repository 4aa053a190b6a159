#include "core/app/Log.h"

#include "core/app/AppIdentity.h"
#include "core/app/SafeText.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cstdio>

namespace Log {

QString path()
{
    static const QString file = AppIdentity::xdgFolder("XDG_STATE_HOME", QStringLiteral(".local/state")) +
                                QLatin1Char('/') + AppIdentity::appName() + QStringLiteral(".log");
    return file;
}

void write(const QString &message)
{
    const QByteArray line = QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs).toUtf8() + ' ' +
                            SafeText::oneLine(message, maxLineLength).toUtf8() + '\n';
    QFile file(path());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append)) {
        // The state folder may not exist yet on a fresh account.
        QDir().mkpath(QFileInfo(file).absolutePath());
        if (!file.open(QIODevice::WriteOnly | QIODevice::Append)) return;
    }
    if (file.size() > 0 && file.size() + line.size() > maxBytes) {
        file.close();
        // rename() replaces an older copy in the same step.
        std::rename(QFile::encodeName(path()).constData(),
                    QFile::encodeName(path() + QStringLiteral(".1")).constData());
        if (!file.open(QIODevice::WriteOnly | QIODevice::Append)) return;
    }
    file.write(line);
}

}  // namespace Log
