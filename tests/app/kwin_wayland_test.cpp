// The real program under KWin's Wayland session (its virtual backend) at a fractional scale of
// 1.5: the room draws its surfaces at the output's device pixels through viewports, not at the
// next whole scale for the compositor to shrink, and its moving layers lie on whole logical
// pixels. With the window list KWin gives it, a small window leaves it drawing and a fullscreen
// one pauses it.

#include "AppLog.h"
#include "KWinServer.h"
#include "PrivateBus.h"
#include "TestSupport.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <gtest/gtest.h>
#include <iostream>

using namespace testsupport;

namespace {

QString binary(const QString &name) { return QStringLiteral(TURNELO_BINARY_DIR "/") + name; }

// Standard deviation of the grey level: KWin's empty desktop is flat, the room is not.
double spread(const QImage &img)
{
    double sum = 0, sum2 = 0;
    int n = 0;
    for (int y = 0; y < img.height(); y += 4)
        for (int x = 0; x < img.width(); x += 4, ++n) {
            const double v = qGray(img.pixel(x, y));
            sum += v;
            sum2 += v * v;
        }
    return n ? std::sqrt(std::max(0.0, sum2 / n - (sum / n) * (sum / n))) : 0;
}

TEST(KWinWayland, AtAFractionalScaleTheRoomIsDrawnAtTheOutputsPixelsAndAFullscreenWindowPausesIt)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.ok());
    KWinServer kwin;
    kwin.trust(QFileInfo(binary("turnelo")).canonicalFilePath(), "org_kde_plasma_window_management");
    QString why;
    if (!kwin.start(QSize(1280, 720), "1.5", bus.env().value("DBUS_SESSION_BUS_ADDRESS"), why))
        GTEST_SKIP() << why.toStdString();
    QTemporaryDir dir;
    const QString scene = dir.filePath("scene");
    ASSERT_EQ(runTool(binary("tools/turnelo-gen-scene"),
                      {"--out", scene, "--width", "640", "--height", "360", "--framings", "wide"})
                  .exitCode,
              0);
    QProcessEnvironment env = kwin.environment();
    env.insert("DBUS_SYSTEM_BUS_ADDRESS", bus.env().value("DBUS_SYSTEM_BUS_ADDRESS"));
    env.insert("TURNELO_SCENES_DIR", scene);
    env.insert("VK_ICD_FILENAMES", lavapipeIcd());
    for (const QStringList &setting :
         {QStringList{"onboardingDone", "-bool", "true"}, QStringList{"perfLogInterval", "-float", "1"}}) {
        QProcess defaults;
        defaults.setProcessEnvironment(env);
        defaults.start(binary("tools/turnelo-defaults"), QStringList{"write"} + setting);
        ASSERT_TRUE(defaults.waitForFinished(30000) && defaults.exitCode() == 0);
    }
    // Every request the program makes to the compositor, on stderr.
    env.insert("WAYLAND_DEBUG", "client");
    QProcess app;
    app.setProcessEnvironment(env);
    app.setStandardErrorFile(dir.filePath("requests.txt"));
    app.start(binary("turnelo"), {"--music-setup-done"});
    ASSERT_TRUE(app.waitForStarted(10000));
    AppLog log(kwin.stateHome(), app);
    // KWin prefers its scale once the surface is on the output, after the first picture.
    qsizetype at = log.waitForLine("Wayland: saída Virtual-0 em escala 1,5 (1920×1080 pixels)", 0, 180);
    log.waitForLine("Wayland: janelas pela lista do KWin", 0, 10);
    log.waitForLine("Cena pronta", 0, 180);
    static const QRegularExpression moving(QStringLiteral("Perf \\d+s: [1-9][0-9.]* fps"));
    EXPECT_TRUE(waitUntil([&] { return moving.match(log.text(), at).hasMatch(); }, std::chrono::seconds(60)))
        << "no frames at the new scale";

    QImage shot;
    EXPECT_TRUE(waitUntil(
        [&] {
            shot = kwin.screenshot();
            return spread(shot) > 6;
        },
        std::chrono::seconds(60)))
        << "no room on the screen";
    shot.save(QStringLiteral(TURNELO_BINARY_DIR "/kwin-room.png"));
    EXPECT_EQ(shot.size(), QSize(1920, 1080));

    // A window over part of the room leaves it drawing; a fullscreen one pauses it until it goes.
    // weston's demo clients (foot stops on KWin's virtual output, which has no physical size).
    QProcessEnvironment plain = env;
    plain.remove("WAYLAND_DEBUG");
    QProcess small, full;
    for (QProcess *window : {&small, &full}) {
        window->setProcessEnvironment(plain);
        window->setStandardOutputFile(QProcess::nullDevice());
        window->setStandardErrorFile(QProcess::nullDevice());
    }
    small.start("weston-flower", {});
    at = log.text().size();
    const qsizetype spanned = log.waitForLine("Perf", log.waitForLine("Perf", at));
    EXPECT_GT(log.fpsAfter(spanned), 0.0) << "a small window paused the room";
    full.start("weston-terminal", {"--fullscreen", "--shell=/bin/sh"});
    at = log.waitForLine("Cena: área animada coberta por janelas → pausa", at);
    EXPECT_EQ(log.fpsAfter(log.waitForLine("Perf", log.waitForLine("Perf", at))), 0.0) << "frames while covered";
    full.terminate();
    full.waitForFinished(10000);
    log.waitForLine("Cena: área animada à vista → renderiza", at);
    small.terminate();
    small.waitForFinished(10000);

    app.terminate();
    app.waitForFinished(10000);
    const QString debug = QString::fromUtf8(readFile(dir.filePath("requests.txt")));
    // What was asked once the compositor had said its scale.
    const qsizetype told = debug.lastIndexOf("preferred_scale(180)");
    ASSERT_GE(told, 0) << "no fractional scale was offered";
    const QString requests = debug.mid(told);
    if (HasFailure()) std::cerr << "log:\n" << log.text().toStdString() << "\n";
    // The base: a buffer of the output's device pixels shown over its logical size.
    EXPECT_TRUE(requests.contains("set_destination(1280, 720)")) << "no viewport for the base";
    static const QRegularExpression buffer(
        QStringLiteral("create_buffer\\(new id wl_buffer@\\d+, \\d+, (\\d+), (\\d+),"));
    int bases = 0, layers = 0;
    for (auto it = buffer.globalMatch(requests); it.hasNext();) {
        const auto m = it.next();
        const int w = m.captured(1).toInt(), h = m.captured(2).toInt();
        if (w == 1920 && h == 1080) {
            ++bases;
            continue;
        }
        ++layers;
        EXPECT_LT(w, 1920) << "a buffer larger than the output: " << w << "×" << h;
        // At 1.5, whole logical pixels are steps of 3 device pixels.
        EXPECT_EQ(w % 3, 0) << w << "×" << h;
        EXPECT_EQ(h % 3, 0) << w << "×" << h;
    }
    EXPECT_GT(bases, 0) << "no buffer at the output's pixels";
    EXPECT_GT(layers, 0) << "no moving layer";
    EXPECT_FALSE(requests.contains("set_buffer_scale(2)")) << "drawn at the next whole scale";
}

}  // namespace
