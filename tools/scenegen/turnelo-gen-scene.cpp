// turnelo-gen-scene: writes a synthetic scene package for development, demos and tests.
#include "SceneGenerator.h"
#include "core/app/CommandLine.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QTextStream>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    CommandLine line("turnelo-gen-scene", "Writes a synthetic scene package (manifest, plates, sprites, masks).");
    QCommandLineParser &parser = line.parser;
    const QCommandLineOption out("out", "Scene folder to write.", "DIR");
    const QCommandLineOption width("width", "Plate width in pixels (default 1920).", "W", "1920");
    const QCommandLineOption height("height", "Plate height in pixels (default 1080).", "H", "1080");
    const QCommandLineOption framings(
        "framings",
        "Comma-separated framings (default wide,mid; known: " + SceneGenerator::knownFramings().join(",") + ").",
        "LIST", "wide,mid");
    const QCommandLineOption seed("seed", "Seed of textures, clouds and skyline (default 1).", "N", "1");
    const QCommandLineOption preview("preview", "Also write a PNG of the first framing in day light.", "FILE");
    parser.addOptions({out, width, height, framings, seed, preview});
    if (const auto status = line.parse(app.arguments())) return *status;

    QTextStream err(stderr);
    if (!parser.isSet(out)) {
        err << "turnelo-gen-scene: --out DIR is required\n";
        return 2;
    }
    SceneGenerator::Options options;
    bool ok[3] = {false, false, false};
    options.out = parser.value(out);
    options.width = parser.value(width).toInt(&ok[0]);
    options.height = parser.value(height).toInt(&ok[1]);
    options.seed = parser.value(seed).toUInt(&ok[2]);
    options.framings = parser.value(framings).split(',', Qt::SkipEmptyParts);
    options.preview = parser.value(preview);
    if (!ok[0] || !ok[1] || !ok[2]) {
        err << "turnelo-gen-scene: --width, --height and --seed take whole numbers\n";
        return 2;
    }
    try {
        const auto summary = SceneGenerator::generate(options, [&](const QString &line) {
            err << line << '\n';
            err.flush();
        });
        QTextStream(stdout) << QJsonDocument(summary.toJson(options.out)).toJson(QJsonDocument::Compact) << '\n';
    } catch (const std::exception &e) {
        err << "turnelo-gen-scene: " << e.what() << '\n';
        return 1;
    }
    return 0;
}
