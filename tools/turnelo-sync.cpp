// Runs one scene synchronisation against a content service and reports the outcome: a check
// for people who host their own scenes, and the process that the crash-recovery tests kill.
//
//   turnelo-sync [--root DIR] [--url BASE_URL] [--settings FILE]
//
// Prints each phase while the run goes on, then "ready" and exits 0 when the picked scene is
// installed and current, or "failed: <reason>" on stderr and exits 1 when this run failed, even
// though an older installed scene keeps the installer's phase at ready.
#include "core/app/CommandLine.h"
#include "core/app/Settings.h"
#include "core/delivery/SceneInstaller.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    CommandLine line(QStringLiteral("turnelo-sync"),
                     QStringLiteral("Installs or updates the scene from the content service."));
    QCommandLineParser &parser = line.parser;
    const QCommandLineOption root(QStringLiteral("root"), QStringLiteral("Support folder (default: the app's)."),
                                  QStringLiteral("dir"));
    const QCommandLineOption url(QStringLiteral("url"), QStringLiteral("Content service base URL."),
                                 QStringLiteral("url"));
    const QCommandLineOption settingsFile(QStringLiteral("settings"), QStringLiteral("Settings file to use."),
                                          QStringLiteral("file"));
    parser.addOptions({root, url, settingsFile});
    if (const auto status = line.parse(app.arguments())) return *status;

    std::unique_ptr<Settings> settings = parser.isSet(settingsFile)
                                             ? std::make_unique<Settings>(parser.value(settingsFile))
                                             : std::make_unique<Settings>();
    SceneInstaller::Options options;
    options.root = parser.value(root);
    options.baseURL = parser.value(url);
    // One pass only: a retry would outlive the command.
    options.schedule = [](std::chrono::seconds, std::function<void()>) {};
    SceneInstaller installer(*settings, options);
    QTextStream out(stdout), err(stderr);
    static const char *names[] = {"idle", "checking", "downloading", "verifying", "installing", "ready", "failed"};
    QObject::connect(&installer, &SceneInstaller::phaseChanged, &app, [&] {
        const SceneInstaller::Phase &p = installer.phase();
        // The phase a run ends in says nothing of its outcome; runFinished does.
        if (installer.running() && p.kind != SceneInstaller::Phase::downloading) out << names[p.kind] << Qt::endl;
    });
    QObject::connect(&installer, &SceneInstaller::runFinished, &app, [&] {
        if (installer.lastRunError().isEmpty()) {
            out << "ready" << Qt::endl;
            app.exit(0);
        } else {
            err << "failed: " << installer.lastRunError() << Qt::endl;
            app.exit(1);
        }
    });
    installer.sync();
    return app.exec();
}
