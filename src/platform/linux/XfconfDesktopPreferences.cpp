#include "platform/linux/XfconfDesktopPreferences.h"

#include "core/app/Log.h"

namespace {

// xfconf-query's names for the types a setting can have.
QString typeName(const QVariant &v)
{
    switch (v.typeId()) {
    case QMetaType::Bool:
        return QStringLiteral("bool");
    case QMetaType::Int:
    case QMetaType::LongLong:
        return QStringLiteral("int");
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        return QStringLiteral("uint");
    case QMetaType::Double:
        return QStringLiteral("double");
    default:
        return QStringLiteral("string");
    }
}

QString text(const QVariant &v)
{
    if (v.typeId() == QMetaType::Bool) return v.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    return v.toString();
}

void logFailure(const char *what, const DesktopPreferences::Setting &s, const PreferenceTool::Result &r)
{
    if (!r.started) return;  // already logged by the tool
    Log::write(QStringLiteral("Mesa limpa: xfconf %1 %2 %3 falhou: %4")
                   .arg(QLatin1String(what), s.domain, s.key, QString::fromLocal8Bit(r.err).trimmed()));
}

}  // namespace

const QString XfconfDesktopPreferences::channel = QStringLiteral("xfce4-desktop");

XfconfDesktopPreferences::XfconfDesktopPreferences()
    : tool(QStringLiteral("xfconf-query"))
{
}

const DesktopPreferences::Layout &XfconfDesktopPreferences::layout() const
{
    // Icon styles: 0 none, 1 minimised application icons, 2 file and launcher icons (the default).
    static const Layout layout{
        {{channel, QStringLiteral("/desktop-icons/style"), Control::hideIcons, 0, 2, 2}},
        {{channel, QStringLiteral("xfdesktop"), {QStringLiteral("--reload")}}},
    };
    return layout;
}

std::optional<QVariant> XfconfDesktopPreferences::read(const Setting &setting)
{
    const auto r = tool.run({QStringLiteral("-c"), setting.domain, QStringLiteral("-p"), setting.key});
    if (!r.ok()) {
        if (!r.err.contains("does not exist")) logFailure("ler", setting, r);
        return std::nullopt;
    }
    QVariant value = QString::fromUtf8(r.out).trimmed();
    if (setting.cleanValue.typeId() == QMetaType::Bool)
        value = value.toString() == QLatin1String("true");
    else if (!value.convert(setting.cleanValue.metaType()))
        return std::nullopt;
    return value;
}

void XfconfDesktopPreferences::write(const Setting &setting, const QVariant &value)
{
    // --create also sets a property that exists, and fixes its type.
    const auto r =
        tool.run({QStringLiteral("-c"), setting.domain, QStringLiteral("-p"), setting.key, QStringLiteral("-n"),
                  QStringLiteral("-t"), typeName(setting.cleanValue), QStringLiteral("-s"), text(value)});
    if (!r.ok()) logFailure("gravar", setting, r);
}

void XfconfDesktopPreferences::remove(const Setting &setting)
{
    const auto r =
        tool.run({QStringLiteral("-c"), setting.domain, QStringLiteral("-p"), setting.key, QStringLiteral("-r")});
    if (!r.ok() && !r.err.contains("does not exist")) logFailure("apagar", setting, r);
}
