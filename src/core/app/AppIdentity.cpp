#include "core/app/AppIdentity.h"

#include <QDir>

namespace AppIdentity {

bool isRelease()
{
#ifdef TURNELO_RELEASE
    return true;
#else
    return false;
#endif
}

QString appName()
{
    static const QString name = isRelease() ? QStringLiteral("Turnelo") : QStringLiteral("Turnelo Dev");
    return name;
}

QString settingsName(bool release) { return release ? QStringLiteral("turnelo") : QStringLiteral("turnelo-dev"); }

QString version() { return QStringLiteral(TURNELO_VERSION); }

QString xdgFolder(const char *variable, const QString &fallback)
{
    const QString value = qEnvironmentVariable(variable);
    return value.isEmpty() ? QDir::homePath() + QLatin1Char('/') + fallback : value;
}

}  // namespace AppIdentity
