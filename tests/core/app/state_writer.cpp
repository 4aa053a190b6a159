// For crash_state_test, which kills it at random moments: writes every kind of state Turnelo keeps, round
// after round, saying "begin <kind> <what>" before each write and "ack <kind> <what>" once it is done.
//
//   state_writer ROOT FIRST_ROUND URL_A URL_B [once]
//
// ROOT holds settings.json, history/ and support/. Each round syncs the installer against URL_A or URL_B
// in turn: two catalogs offering different scenes, so every round installs. "once" stops after one round.

#include "core/app/Settings.h"
#include "core/delivery/SceneInstaller.h"
#include "core/music/HistoryStore.h"

#include <QCoreApplication>
#include <QImage>
#include <QTimer>
#include <cstdio>
#include <map>

namespace {

void say(const QString &line)
{
    std::fputs(qPrintable(line + QLatin1Char('\n')), stdout);
    std::fflush(stdout);
}

void step(const QString &what, const std::function<void()> &write)
{
    say("begin " + what);
    write();
    say("ack " + what);
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 5) return 2;
    const QString root = args[1];
    int round = args[2].toInt();
    const QString urls[2] = {args[3], args[4]};
    const bool once = args.size() > 5 && args[5] == QLatin1String("once");

    Settings settings(root + "/settings.json");
    HistoryStore history(settings, root + "/history");
    using Phase = SceneInstaller::Phase;
    const std::map<Phase::Kind, QString> phaseNames{{Phase::checking, "catalog"},
                                                    {Phase::downloading, "download"},
                                                    {Phase::verifying, "verify"},
                                                    {Phase::installing, "install"}};

    std::function<void()> next = [&] {
        ++round;
        const QString r = QString::number(round), key = QStringLiteral("key%1").arg(round % 5);
        step("settings " + key + ' ' + r, [&] { settings.setValue(key, round); });
        step("history " + r, [&] {
            QImage cover(48, 48, QImage::Format_RGB32);
            cover.fill(QColor::fromHsv(round * 37 % 360, 200, 200));
            history.record(cover, "Album " + r);
            history.flush();
        });

        const int which = round % 2;
        SceneInstaller::Options options;
        options.root = root + "/support";
        options.baseURL = urls[which];
        options.schedule = [](std::chrono::seconds, std::function<void()>) {};  // no retries: the next round is one
        auto *installer = new SceneInstaller(settings, options);
        QObject::connect(installer, &SceneInstaller::phaseChanged, installer, [installer, &phaseNames] {
            if (const auto name = phaseNames.find(installer->phase().kind); name != phaseNames.end())
                say("begin " + name->second);
        });
        QObject::connect(installer, &SceneInstaller::runFinished, installer, [installer, which, once, &next] {
            const QString error = installer->lastRunError();
            say(error.isEmpty() ? QStringLiteral("ack install %1").arg(which) : "failed install " + error);
            installer->deleteLater();
            if (once)
                QCoreApplication::quit();
            else
                QTimer::singleShot(0, next);
        });
        installer->sync();
    };
    QTimer::singleShot(0, next);
    return app.exec();
}
