#include "core/app/WindowSystemChoice.h"

namespace WindowSystemChoice {

Kind choose(const Environment &e)
{
    if (e.forced == QLatin1String("x11")) return e.x11Display ? Kind::x11 : Kind::none;
    if (e.forced == QLatin1String("wayland") || e.waylandReachable) {
        if (!e.waylandReachable) return Kind::none;
        return e.layerShell ? Kind::wayland : Kind::waylandWithoutBackground;
    }
    return e.x11Display ? Kind::x11 : Kind::none;
}

QString word(Kind kind)
{
    switch (kind) {
    case Kind::x11:
        return QStringLiteral("X11");
    case Kind::wayland:
        return QStringLiteral("Wayland (layer shell)");
    case Kind::waylandWithoutBackground:
        return QStringLiteral("Wayland sem layer shell");
    case Kind::none:
        break;
    }
    return QStringLiteral("nenhum");
}

}  // namespace WindowSystemChoice
