// Reads and writes Turnelo's settings from outside the app, keeping each value's type, in the
// manner of the platform's defaults tool:
//   turnelo-defaults read [KEY]
//   turnelo-defaults read-type KEY
//   turnelo-defaults write KEY (-bool|-int|-float|-string|-dict) VALUE
//   turnelo-defaults delete KEY
// The settings file is the one the app of the same build uses (quelt/turnelo-dev.json for a
// development build, quelt/turnelo.json for a release), or the one named by --file PATH before
// the verb.
#include "core/app/CommandLine.h"
#include "core/app/JsonSettingsFormat.h"
#include "core/app/Settings.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdio>
#include <memory>

namespace {

int usage()
{
    std::fputs("usage: turnelo-defaults [--file PATH] read [KEY] | read-type KEY | "
               "write KEY -bool|-int|-float|-string|-dict VALUE | delete KEY\n",
               stderr);
    return 1;
}

int fail(const QString &message)
{
    std::fprintf(stderr, "%s\n", qPrintable(message));
    return 1;
}

QByteArray render(const QVariant &value)
{
    const QJsonDocument doc(QJsonArray{JsonSettingsFormat::toJson(value)});
    QByteArray text = doc.toJson(QJsonDocument::Compact);
    return text.mid(1, text.size() - 2);  // strip the wrapping array
}

QString typeName(const QVariant &v)
{
    switch (v.typeId()) {
    case QMetaType::Bool:
        return QStringLiteral("boolean");
    case QMetaType::Int:
    case QMetaType::LongLong:
        return QStringLiteral("integer");
    case QMetaType::Double:
        return QStringLiteral("float");
    case QMetaType::QString:
        return QStringLiteral("string");
    case QMetaType::QVariantMap:
        return QStringLiteral("dictionary");
    case QMetaType::QVariantList:
        return QStringLiteral("array");
    default:
        return QStringLiteral("unknown");
    }
}

std::optional<QVariant> parse(const QString &type, const QString &text)
{
    if (type == "-bool" || type == "-boolean") {
        const QString t = text.toLower();
        if (t == "true" || t == "yes" || t == "1") return QVariant(true);
        if (t == "false" || t == "no" || t == "0") return QVariant(false);
        return std::nullopt;
    }
    if (type == "-int" || type == "-integer") {
        bool ok = false;
        const qlonglong n = text.toLongLong(&ok);
        return ok ? std::optional<QVariant>(QVariant(n)) : std::nullopt;
    }
    if (type == "-float") {
        bool ok = false;
        const double d = text.toDouble(&ok);
        return ok ? std::optional<QVariant>(QVariant(d)) : std::nullopt;
    }
    if (type == "-string") return QVariant(text);
    if (type == "-dict") {
        const QJsonDocument doc = QJsonDocument::fromJson(text.toUtf8());
        if (!doc.isObject()) return std::nullopt;
        return JsonSettingsFormat::fromJson(doc.object());
    }
    return std::nullopt;
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    CommandLine line(QStringLiteral("turnelo-defaults"),
                     QStringLiteral("Reads and writes the settings of the app of the same build, keeping each "
                                    "value's type."));
    line.parser.addPositionalArgument(
        QStringLiteral("command"),
        QStringLiteral("read [KEY]: one value, or every key and value.\n"
                       "read-type KEY: the type of a value.\n"
                       "write KEY -bool|-int|-float|-string|-dict VALUE: stores a value of that type.\n"
                       "delete KEY: removes a key."),
        QStringLiteral("read [KEY] | read-type KEY | write KEY TYPE VALUE | delete KEY"));
    const QCommandLineOption fileOption(
        QStringLiteral("file"), QStringLiteral("Settings file to use instead of the app's."), QStringLiteral("PATH"));
    line.parser.addOption(fileOption);
    // After the verb every word is the verb's: "-int" is a type, not an option.
    line.parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    if (const auto status = line.parse(app.arguments())) return *status;
    const QStringList args = line.parser.positionalArguments();
    const QString file = line.parser.value(fileOption);
    if (args.isEmpty()) return usage();
    auto owned = file.isEmpty() ? std::make_unique<Settings>() : std::make_unique<Settings>(file);
    Settings &settings = *owned;
    const QString verb = args[0];

    if (verb == "read" && args.size() == 1) {
        QVariantMap all;
        for (const QString &key : QSettings(settings.filePath(), JsonSettingsFormat::format()).allKeys())
            all.insert(key, settings.value(key));
        std::printf("%s\n", render(all).constData());
        return 0;
    }
    if ((verb == "read" || verb == "read-type") && args.size() == 2) {
        const QVariant v = settings.value(args[1]);
        if (!v.isValid()) return fail(QStringLiteral("a chave %1 não existe").arg(args[1]));
        if (verb == "read")
            std::printf("%s\n", render(v).constData());
        else
            std::printf("Type is %s\n", qPrintable(typeName(v)));
        return 0;
    }
    if (verb == "write" && args.size() == 4) {
        const auto value = parse(args[2], args[3]);
        if (!value) return fail(QStringLiteral("valor inválido para %1: %2").arg(args[2], args[3]));
        settings.setValue(args[1], *value);
        return 0;
    }
    if (verb == "delete" && args.size() == 2) {
        settings.remove(args[1]);
        return 0;
    }
    return usage();
}
