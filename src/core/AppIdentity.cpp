#include "core/AppIdentity.h"

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

QString version()
{
    return QStringLiteral(TURNELO_VERSION);
}

}  // namespace AppIdentity
