// Scene checks for authors and scripts. One JSON object on standard output; on bad input, exit
// status 1 with the message on standard error.
//   turnelo-scene validate DIR
//   turnelo-scene blend DIR --at HH:MM[:SS]
//   turnelo-scene crop FILE --kind sprite|additive|shadow|mask|channel:N
#include "core/app/CommandLine.h"
#include "core/lighting/LightMixer.h"
#include "core/scene/ImageDecoder.h"
#include "core/scene/PlateManifest.h"
#include "core/scene/SceneCheck.h"
#include "core/scene/SceneFiles.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdio>
#include <stdexcept>

namespace {

struct ToolError : std::runtime_error {
    explicit ToolError(const QString &message)
        : std::runtime_error(message.toStdString())
    {
    }
};

void print(const QJsonObject &object)
{
    std::fputs(QJsonDocument(object).toJson(QJsonDocument::Compact).constData(), stdout);
    std::fputc('\n', stdout);
}

QJsonArray strings(const QStringList &list) { return QJsonArray::fromStringList(list); }

// Runs one of the scene checks on `dir`, its failures in this tool's words.
template <typename Check> auto checked(const QString &dir, Check check)
{
    try {
        return check(dir);
    } catch (const SceneError &error) {
        if (error.kind == SceneError::Kind::noManifest) throw ToolError(error.description());
        throw ToolError(QStringLiteral("Cena: manifest inválido em ") + QDir(dir).absolutePath() +
                        QStringLiteral(": ") + error.description());
    }
}

PlateManifest loadManifest(const QString &dir) { return checked(dir, SceneCheck::readManifest); }

QJsonObject validate(const QString &dir)
{
    const SceneCheck::Report report = checked(dir, SceneCheck::check);
    QJsonObject framings;
    QJsonArray missing;
    for (const auto &[name, framing] : report.manifest.framings) {
        framings.insert(name, QJsonObject{{"size", QJsonArray{framing.size[0], framing.size[1]}},
                                          {"sections", strings(SceneFiles::sections(framing))}});
        for (const QString &file : report.missing.at(name)) missing.append(file);
    }
    return {{"contract", report.manifest.contract},
            {"presetOrder", strings(report.manifest.presetOrder())},
            {"framings", framings},
            {"missing", missing}};
}

QJsonObject blend(const QString &dir, const QString &at)
{
    const QTime time = QTime::fromString(at, at.count(QLatin1Char(':')) == 2 ? "H:mm:ss" : "H:mm");
    if (!time.isValid())
        throw ToolError(QStringLiteral("hora inválida: ") + at + QStringLiteral(" (use HH:MM ou HH:MM:SS)"));
    const PlateManifest manifest = loadManifest(dir);
    const QDateTime date(QDate::currentDate(), time);
    QJsonObject weights;
    for (const auto &[name, weight] : LightMixer(manifest).clockBlend(date)) weights.insert(name, weight);
    const auto position = LightPresets::position(manifest, date);
    return {{"blend", weights},
            {"current", LightPresets::current(manifest, QStringLiteral("auto"), date)},
            {"position", position ? QJsonValue(*position) : QJsonValue(QJsonValue::Null)}};
}

QJsonObject crop(const QString &file, const QString &kind)
{
    using namespace ImageDecoder;
    const auto rectJson = [](const auto &cropped) {
        if (!cropped) return QJsonValue(QJsonValue::Null);
        return QJsonValue(QJsonArray{cropped->rect[0], cropped->rect[1], cropped->rect[2], cropped->rect[3]});
    };
    const auto result = [&](int64_t w, int64_t h, const QJsonValue &rect) {
        return QJsonObject{{"width", qint64(w)}, {"height", qint64(h)}, {"rect", rect}};
    };
    try {
        if (kind == "shadow" || kind == "mask") {
            const GrayImage image = decodeGray(file);
            return result(image.width, image.height, rectJson(kind == "shadow" ? cropShadow(image) : cropMask(image)));
        }
        std::optional<int> channel;
        if (kind.startsWith("channel:")) {
            bool ok = false;
            channel = kind.mid(8).toInt(&ok);
            if (!ok || *channel < 0 || *channel > 3)
                throw ToolError(QStringLiteral("canal inválido: ") + kind.mid(8) + QStringLiteral(" (0 a 3)"));
        } else if (kind != "sprite" && kind != "additive") {
            throw ToolError(QStringLiteral("tipo de recorte desconhecido: ") + kind);
        }
        const HalfImage image = decodeEXR(file);
        const auto cropped =
            channel ? cropByChannel(image, *channel) : (kind == "sprite" ? cropSprite(image) : cropAdditive(image));
        return result(image.width, image.height, rectJson(cropped));
    } catch (const SceneError &failure) {
        throw ToolError(failure.description());
    }
}

QString required(const QCommandLineParser &parser, const QCommandLineOption &option)
{
    if (!parser.isSet(option)) throw ToolError(QStringLiteral("falta a opção --") + option.names().constFirst());
    return parser.value(option);
}

}  // namespace

int main(int argc, char **argv)
{
    // Image codecs chatter through Qt's warnings; standard error carries only our message.
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
        if (type == QtCriticalMsg || type == QtFatalMsg) std::fprintf(stderr, "%s\n", qPrintable(text));
    });
    QCoreApplication app(argc, argv);
    CommandLine line(QStringLiteral("turnelo-scene"),
                     QStringLiteral("Scene checks: one JSON object on standard output; on bad input, exit status 1 "
                                    "with the message on standard error."));
    line.parser.addPositionalArgument(
        QStringLiteral("command"),
        QStringLiteral("validate DIR: the manifest's framings, their sections and the files missing.\n"
                       "blend DIR --at TIME: the clock's light blend at a local time.\n"
                       "crop FILE --kind KIND: an image's size and the rectangle its kind of crop keeps."),
        QStringLiteral("validate DIR | blend DIR --at HH:MM[:SS] | crop FILE --kind KIND"));
    const QCommandLineOption at(QStringLiteral("at"), QStringLiteral("Local time for blend."),
                                QStringLiteral("HH:MM[:SS]"));
    const QCommandLineOption kind(QStringLiteral("kind"),
                                  QStringLiteral("Crop for crop: sprite, additive, shadow, mask or channel:N."),
                                  QStringLiteral("KIND"));
    line.parser.addOptions({at, kind});
    if (const auto status = line.parse(app.arguments())) return *status;
    const QStringList args = line.parser.positionalArguments();
    try {
        if (args.size() == 2 && args[0] == "validate")
            print(validate(args[1]));
        else if (args.size() == 2 && args[0] == "blend")
            print(blend(args[1], required(line.parser, at)));
        else if (args.size() == 2 && args[0] == "crop")
            print(crop(args[1], required(line.parser, kind)));
        else
            throw ToolError(QStringLiteral("usage: turnelo-scene validate DIR | blend DIR --at HH:MM[:SS] | "
                                           "crop FILE --kind sprite|additive|shadow|mask|channel:N"));
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
