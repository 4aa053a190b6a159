// The settings window over a real settings file: its controls write their keys typed, follow what
// turnelo-defaults writes, tell the room's state, and the login switch makes the autostart entry.

#include "TestSupport.h"
#include "core/app/Settings.h"
#include "core/app/SettingsTable.h"
#include "core/environment/DesktopCleaner.h"
#include "core/delivery/SceneInstaller.h"
#include "core/environment/PowerMonitor.h"
#include "core/music/HistoryStore.h"
#include "core/scene/SceneStatus.h"
#include "platform/linux/LinuxDesktopPreferences.h"
#include "platform/linux/XdgAutostart.h"
#include "ui/DesktopTab.h"
#include "ui/SettingsWindow.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QSpinBox>
#include <QTest>
#include <gtest/gtest.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

struct SettingsWindowTest : ::testing::Test {
    QTemporaryDir dir;
    QString file = dir.filePath("settings.json");
    Settings settings{file};
    PowerMonitor power{settings, nullptr};
    SceneStatus status;
    RecordingLauncher launcher;  // as on Plasma, where the cleaner has nothing to change
    DesktopCleaner cleaner{settings, linuxDesktopPreferences("KDE"), launcher};
    SceneInstaller installer{settings, [this] {
                                 SceneInstaller::Options o;
                                 o.root = dir.filePath("support");
                                 o.schedule = [](auto, auto) {};
                                 return o;
                             }()};
    HistoryStore history{settings, dir.filePath("history")};
    std::unique_ptr<SettingsWindow> window;

    void SetUp() override
    {
        UiServices s;
        s.settings = &settings;
        s.power = &power;
        s.status = &status;
        s.cleaner = &cleaner;
        s.installer = &installer;
        s.history = &history;
        cleaner.setUnavailableNote(linuxDesktopCleanerNote("KDE"));
        s.launchAtLogin = [] { return XdgAutostart::isEnabled(); };
        s.setLaunchAtLogin = [](bool on) { return XdgAutostart::setEnabled(on, "/opt/Turnelo Test/turnelo"); };
        window = std::make_unique<SettingsWindow>(s);
        window->show(SettingsWindow::Tab::general);
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window.get()));
    }

    // What another process reads from the file: "boolean true", "string \"all\"", …
    QString stored(const QString &key)
    {
        const auto type = runTool(builtTool("turnelo-defaults"), {"--file", file, "read-type", key});
        const auto value = runTool(builtTool("turnelo-defaults"), {"--file", file, "read", key});
        return QString::fromUtf8(type.out.trimmed()).remove("Type is ") + ' ' + QString::fromUtf8(value.out.trimmed());
    }
    void write(const QStringList &args)
    {
        const auto r = runTool(builtTool("turnelo-defaults"), QStringList{"--file", file, "write"} + args);
        ASSERT_EQ(r.exitCode, 0) << r.err.constData();
    }
    template <typename W> W *control(const QString &key) { return window->findChild<W *>(key); }
};

// Answers the question once it is asked: the button of role `yes`, or another one (Cancel).
void answerNextQuestion(QMessageBox::ButtonRole yesRole, bool yes)
{
    QTimer::singleShot(100, [=] {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        ASSERT_TRUE(box);
        for (QAbstractButton *b : box->buttons())
            if ((box->buttonRole(b) == yesRole) == yes) return b->click();
    });
}

TEST_F(SettingsWindowTest, ControlsWriteTheirKeysTypedAndFollowOutsideWrites)
{
    const QStringList switches{"showTurntable", "showMenuBarIcon", "ecoMode", "fxRecord",  "fxBounce",
                               "fxPanel",       "fxStack",         "steam",   "fxWeather", "musicSetupDone"};
    for (const QString &key : switches) {
        QCheckBox *box = control<QCheckBox>(key);
        ASSERT_TRUE(box) << qPrintable(key);
        EXPECT_EQ(box->text(), SettingsTable::label(key));
        const bool before = box->isChecked();
        window->tabs()->setCurrentWidget(box->parentWidget());
        QTest::mouseClick(box, Qt::LeftButton, {}, QPoint(8, box->height() / 2));
        EXPECT_EQ(stored(key), QString("boolean ") + (before ? "false" : "true")) << qPrintable(key);
    }
    // The saver's switch also reaches the power monitor, which the scene asks.
    EXPECT_FALSE(power.ecoEnabled());

    QComboBox *screens = control<QComboBox>("screens");
    screens->setCurrentIndex(screens->findData("all"));
    emit screens->activated(screens->currentIndex());
    EXPECT_EQ(stored("screens"), "string \"all\"");
    QComboBox *trigger = control<QComboBox>("ecoTrigger");
    emit trigger->activated(trigger->findData("lowPower"));
    EXPECT_EQ(stored("ecoTrigger"), "string \"lowPower\"");
    EXPECT_EQ(power.trigger(), Settings::EcoTrigger::lowPower);
    control<QSpinBox>("stackLimit")->setValue(9);
    EXPECT_EQ(stored("stackLimit"), "integer 9");

    // Written elsewhere while the window is open.
    write({"fxBounce", "-bool", "true"});
    write({"screens", "-string", "main"});
    write({"stackLimit", "-int", "3"});
    write({"ecoMode", "-bool", "true"});
    EXPECT_TRUE(waitUntil(
        [&] {
            return control<QCheckBox>("fxBounce")->isChecked() &&
                   control<QComboBox>("screens")->currentData() == "main" &&
                   control<QSpinBox>("stackLimit")->value() == 3 && control<QCheckBox>("ecoMode")->isChecked();
        },
        10s))
        << "the open window did not follow the file";
    EXPECT_TRUE(power.ecoEnabled());
}

// On Plasma the Desktop tab says where the icons are; only framings on disk can be picked; an
// unavailable room is told in the popover's words, and About adds the log's detail for a report.
TEST_F(SettingsWindowTest, DesktopSceneAndAboutTellTheStateInTheUsersWords)
{
    window->show(SettingsWindow::Tab::desktop);
    QLabel *why = control<QLabel>("cleanerStatus");
    ASSERT_TRUE(why);
    EXPECT_TRUE(why->isVisible());
    EXPECT_TRUE(why->text().contains("Folder View")) << why->text().toStdString();
    EXPECT_FALSE(control<QCheckBox>("hideIcons")) << "a switch that could not work";

    settings.setFraming("wide");
    status.setScene({"wide", "mid"}, {"wide"}, "wide", "/scenes", PlateManifest{});
    QComboBox *framing = control<QComboBox>("framing");
    ASSERT_EQ(framing->count(), 1);
    EXPECT_EQ(framing->itemData(0), "wide");

    const int width = window->width();
    status.setProblem(SceneStatus::Problem{SceneStatus::Reason::gpu, "sem superfície Vulkan para a janela"});
    QLabel *problem = control<QLabel>("sceneProblem");
    ASSERT_TRUE(problem);
    EXPECT_EQ(problem->text(),
              "The graphics device couldn’t draw the room. Reload it in Settings › Scene to try again.");
    const QString about = control<QLabel>("scene")->text();
    EXPECT_TRUE(about.contains(problem->text() + "\nTechnical detail: sem superfície Vulkan para a janela"))
        << qPrintable(about);
    EXPECT_FALSE(problem->isHidden());
    QCoreApplication::processEvents();
    EXPECT_EQ(window->width(), width) << "the reason widened the window instead of wrapping";
    // With no room at all the download section says what is under way instead.
    status.setProblem(SceneStatus::Problem{SceneStatus::Reason::noScene, "nenhuma cena instalada"});
    EXPECT_TRUE(problem->isHidden());
}

TEST_F(SettingsWindowTest, ClearingTheHistoryTakesTheUsersYes)
{
    history.record(solidImage(Qt::red, 48, 48), "Album");
    history.flush();
    window->show(SettingsWindow::Tab::music);
    for (const bool yes : {false, true}) {
        answerNextQuestion(QMessageBox::DestructiveRole, yes);
        control<QPushButton>("clearHistory")->click();
        EXPECT_EQ(history.entries().empty(), yes) << yes;
    }
}

// GNOME's desktop icons through real gsettings on its key-file back end.
TEST(DesktopTabTest, ClearingTheDeskAndPuttingItBackTakeTheUsersYes)
{
    QTemporaryDir dir;
    const ScopedEnv backend("GSETTINGS_BACKEND", "keyfile");
    ASSERT_FALSE(installDesktopIconsSchema(qEnvironmentVariable("XDG_DATA_HOME")).isEmpty());
    Settings settings{dir.filePath("settings.json")};
    RecordingLauncher launcher;
    DesktopCleaner cleaner{settings, linuxDesktopPreferences("GNOME"), launcher};
    ASSERT_TRUE(cleaner.available());
    UiServices s;
    s.settings = &settings;
    s.cleaner = &cleaner;
    DesktopTab tab(s);
    tab.show();
    auto *icons = tab.findChild<QCheckBox *>("hideIcons");
    ASSERT_TRUE(icons);
    icons->setChecked(true);
    for (const bool yes : {false, true}) {
        answerNextQuestion(QMessageBox::AcceptRole, yes);
        tab.findChild<QPushButton *>("apply")->click();
        EXPECT_EQ(cleaner.current().hideIcons, yes) << yes;
    }
    for (const bool yes : {false, true}) {
        answerNextQuestion(QMessageBox::AcceptRole, yes);
        tab.findChild<QPushButton *>("restore")->click();
        EXPECT_EQ(cleaner.current().hideIcons, !yes) << yes;
        EXPECT_EQ(icons->isChecked(), !yes) << "the switch does not show the desk as it is";
    }
}

TEST_F(SettingsWindowTest, LaunchAtLoginMakesAndRemovesTheAutostartEntry)
{
    QCheckBox *login = control<QCheckBox>("launchAtLogin");
    ASSERT_TRUE(login);
    ASSERT_FALSE(login->isChecked());
    login->click();
    const QByteArray entry = readFile(XdgAutostart::entryPath());
    EXPECT_TRUE(entry.contains("\nExec=\"/opt/Turnelo Test/turnelo\"\n")) << entry.constData();
    EXPECT_TRUE(entry.startsWith("[Desktop Entry]\n"));
    login->click();
    EXPECT_FALSE(QFile::exists(XdgAutostart::entryPath()));
}

}  // namespace
