#include "platform/linux/GSettingsDesktopPreferences.h"

#include "core/app/Log.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

const QString GSettingsDesktopPreferences::schema = QStringLiteral("org.gnome.shell.extensions.ding");

GSettingsDesktopPreferences::GSettingsDesktopPreferences(QString schemaDirectory)
    : tool(QStringLiteral("gsettings"))
    , schemaDirectory(std::move(schemaDirectory))
{
}

QString GSettingsDesktopPreferences::extensionSchemaDirectory()
{
    QStringList roots{QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)};
    roots += QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation);
    for (const QString &root : roots) {
        const QString dir = root + QStringLiteral("/gnome-shell/extensions/ding@rastersoft.com/schemas");
        if (QFileInfo::exists(dir + QStringLiteral("/gschemas.compiled"))) return dir;
    }
    return {};
}

QStringList GSettingsDesktopPreferences::arguments(QStringList rest) const
{
    // gsettings takes the option only as two words, before the command.
    if (!schemaDirectory.isEmpty()) rest = QStringList{QStringLiteral("--schemadir"), schemaDirectory} + rest;
    return rest;
}

bool GSettingsDesktopPreferences::usable() const
{
    return tool.found() && tool.run(arguments({QStringLiteral("list-keys"), schema})).ok();
}

const DesktopPreferences::Layout &GSettingsDesktopPreferences::layout() const
{
    static const Layout layout{
        {
            {schema, QStringLiteral("show-home"), Control::hideIcons, false, true, true},
            {schema, QStringLiteral("show-trash"), Control::hideIcons, false, true, true},
            {schema, QStringLiteral("show-volumes"), Control::hideIcons, false, true, true},
        },
        {{schema, {}, {}}},
    };
    return layout;
}

std::optional<QVariant> GSettingsDesktopPreferences::read(const Setting &setting)
{
    const auto r = tool.run(arguments({QStringLiteral("get"), setting.domain, setting.key}));
    if (!r.ok()) {
        if (r.started)
            Log::write(QStringLiteral("Mesa limpa: gsettings get %1 %2 falhou: %3")
                           .arg(setting.domain, setting.key, QString::fromLocal8Bit(r.err).trimmed()));
        return std::nullopt;
    }
    const QString text = QString::fromUtf8(r.out).trimmed();
    if (setting.cleanValue.typeId() == QMetaType::Bool) return QVariant(text == QLatin1String("true"));
    QVariant value = text;
    if (!value.convert(setting.cleanValue.metaType())) return std::nullopt;
    return value;
}

void GSettingsDesktopPreferences::write(const Setting &setting, const QVariant &value)
{
    const QString text = value.typeId() == QMetaType::Bool
                             ? (value.toBool() ? QStringLiteral("true") : QStringLiteral("false"))
                             : value.toString();
    const auto r = tool.run(arguments({QStringLiteral("set"), setting.domain, setting.key, text}));
    if (!r.ok() && r.started)
        Log::write(QStringLiteral("Mesa limpa: gsettings set %1 %2 falhou: %3")
                       .arg(setting.domain, setting.key, QString::fromLocal8Bit(r.err).trimmed()));
}

void GSettingsDesktopPreferences::remove(const Setting &setting)
{
    const auto r = tool.run(arguments({QStringLiteral("reset"), setting.domain, setting.key}));
    if (!r.ok() && r.started)
        Log::write(QStringLiteral("Mesa limpa: gsettings reset %1 %2 falhou: %3")
                       .arg(setting.domain, setting.key, QString::fromLocal8Bit(r.err).trimmed()));
}
