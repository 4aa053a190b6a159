// Writes every kind of state Turnelo keeps, round after round, and prints a line before each write
// ("begin <kind> <what>") and one once it is done ("ack <kind> <what>"). crash_state_test kills it
// with SIGKILL at random moments and checks what the next start finds.
//
//   state_writer ROOT FIRST_ROUND URL_A URL_B [once]
//
// ROOT holds settings.json, history/ and support/ (the installer's Scenes and Downloads). Each
// round sets a settings key, the desktop snapshot and a history cover, then syncs the installer
// against URL_A or URL_B in turn: two catalogs offering different scenes, so every round installs.
// With "once" it stops after one round.

#include "core/app/Settings.h"
#include "core/delivery/SceneInstaller.h"
#include "core/music/HistoryStore.h"

#include <QCoreApplication>
#include <QImage>
#include <QTimer>
#include <cstdio>

namespace {

void say(const QString &line)
{
    std::fputs(qPrintable(line + QLatin1Char('\n')), stdout);
    std::fflush(stdout);
}

QString phaseName(SceneInstaller::Phase::Kind kind)
{
    switch (kind) {
    case SceneInstaller::Phase::checking:
        return QStringLiteral("catalog");
    case SceneInstaller::Phase::downloading:
        return QStringLiteral("download");
    case SceneInstaller::Phase::verifying:
        return QStringLiteral("verify");
    case SceneInstaller::Phase::installing:
        return QStringLiteral("install");
    default:
        return {};
    }
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

    Settings settings(root + QStringLiteral("/settings.json"));
    HistoryStore history(settings, root + QStringLiteral("/history"));

    std::function<void()> next = [&] {
        ++round;
        const QString r = QString::number(round);
        const QString key = QStringLiteral("key%1").arg(round % 5);
        say(QStringLiteral("begin settings ") + key + QLatin1Char(' ') + r);
        settings.setValue(key, round);
        say(QStringLiteral("ack settings ") + key + QLatin1Char(' ') + r);

        say(QStringLiteral("begin snapshot ") + r);
        settings.setDesktopSnapshot(QVariantMap{{QStringLiteral("round"), round}});
        say(QStringLiteral("ack snapshot ") + r);

        say(QStringLiteral("begin history ") + r);
        QImage cover(48, 48, QImage::Format_RGB32);
        cover.fill(QColor::fromHsv(round * 37 % 360, 200, 200));
        history.record(cover, QStringLiteral("Album ") + r);
        history.flush();
        say(QStringLiteral("ack history ") + r);

        const int which = round % 2;
        SceneInstaller::Options options;
        options.root = root + QStringLiteral("/support");
        options.baseURL = urls[which];
        options.schedule = [](std::chrono::seconds, std::function<void()>) {};  // no retries: the next round is one
        auto *installer = new SceneInstaller(settings, options);
        QObject::connect(installer, &SceneInstaller::phaseChanged, installer, [installer] {
            const QString name = phaseName(installer->phase().kind);
            if (!name.isEmpty()) say(QStringLiteral("begin ") + name);
        });
        QObject::connect(installer, &SceneInstaller::runFinished, installer, [installer, which, once, &next] {
            if (installer->lastRunError().isEmpty())
                say(QStringLiteral("ack install %1").arg(which));
            else
                say(QStringLiteral("failed install ") + installer->lastRunError());
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
