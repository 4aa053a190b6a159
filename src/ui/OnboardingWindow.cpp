#include "ui/OnboardingWindow.h"

#include "core/app/Settings.h"
#include "core/app/SettingsTable.h"
#include "core/environment/DesktopCleaner.h"
#include "core/environment/PowerMonitor.h"
#include "core/music/MusicPermission.h"
#include "ui/DesktopTab.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QPainter>
#include <QPushButton>
#include <QRadioButton>
#include <QStackedWidget>
#include <QVBoxLayout>

namespace {

QLabel *heading(const QString &text)
{
    auto *label = new QLabel(text);
    QFont f = label->font();
    f.setBold(true);
    f.setPointSizeF(f.pointSizeF() * 1.5);
    label->setFont(f);
    return label;
}

QLabel *paragraph(const QString &text)
{
    auto *label = new QLabel(text);
    label->setWordWrap(true);
    return label;
}

// Without an installed room: a record on a dark desk, so the page is never empty.
QImage placeholderRoom(QSize size)
{
    QImage image(size, QImage::Format_RGB32);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    QLinearGradient wall(0, 0, 0, size.height());
    wall.setColorAt(0, QColor(0x3a, 0x2f, 0x2a));
    wall.setColorAt(1, QColor(0x1c, 0x16, 0x14));
    p.fillRect(image.rect(), wall);
    const QPointF c(size.width() * 0.5, size.height() * 0.55);
    const double r = size.height() * 0.32;
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(0x12, 0x12, 0x12));
    p.drawEllipse(c, r, r);
    p.setBrush(QColor(0xc8, 0x4b, 0x3a));
    p.drawEllipse(c, r * 0.33, r * 0.33);
    p.setBrush(QColor(0xee, 0xee, 0xee));
    p.drawEllipse(c, r * 0.04, r * 0.04);
    return image;
}

}  // namespace

OnboardingWindow::OnboardingWindow(const UiServices &services, QWidget *parent)
    : QWidget(parent, Qt::Window)
    , s(services)
{
    setWindowTitle(tr("Welcome to Turnelo"));
    setObjectName(QStringLiteral("TurneloOnboarding"));
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 20, 24, 16);
    pages = new QStackedWidget(this);
    pages->addWidget(welcomePage());
    pages->addWidget(musicPage());
    pages->addWidget(deskPage());
    pages->addWidget(donePage());
    layout->addWidget(pages, 1);
    auto *buttons = new QHBoxLayout;
    back = new QPushButton(tr("Back"), this);
    next = new QPushButton(this);
    next->setDefault(true);
    buttons->addWidget(back);
    buttons->addStretch();
    buttons->addWidget(next);
    layout->addLayout(buttons);
    connect(back, &QPushButton::clicked, this, &OnboardingWindow::goBack);
    connect(next, &QPushButton::clicked, this, &OnboardingWindow::goOn);
    setFixedSize(560, 520);
    stepShown();
}

QWidget *OnboardingWindow::welcomePage()
{
    auto *page = new QWidget;
    auto *layout = new QVBoxLayout(page);
    layout->addWidget(heading(tr("Welcome to Turnelo")));
    picture = new QLabel;
    picture->setAlignment(Qt::AlignCenter);
    picture->setMinimumHeight(270);
    layout->addWidget(picture);
    layout->addWidget(paragraph(tr("A room with a record player, on your desktop. The light follows the clock, the "
                                   "record plays what you play, and when it rains in your city, it rains on the "
                                   "window.")));
    layout->addStretch();
    return page;
}

QWidget *OnboardingWindow::musicPage()
{
    auto *page = new QWidget;
    auto *layout = new QVBoxLayout(page);
    layout->addWidget(heading(tr("Your Music")));
    layout->addWidget(paragraph(tr("Turnelo puts what you play on the turntable. It only reads what your players "
                                   "publish: the track, the album, its cover and where the song is. It never plays, "
                                   "pauses or changes anything.")));
    layout->addWidget(paragraph(tr("Players open now:")));
    players = new QListWidget;
    players->setObjectName(QStringLiteral("players"));
    players->setSelectionMode(QAbstractItemView::NoSelection);
    players->setMaximumHeight(150);
    layout->addWidget(players);
    layout->addWidget(paragraph(tr("Any player that shows in your desktop’s media controls works; when several "
                                   "play, Spotify comes first.")));
    layout->addStretch();
    if (s.music) connect(s.music, &MusicPermission::changed, this, &OnboardingWindow::refreshPlayers);
    return page;
}

QWidget *OnboardingWindow::deskPage()
{
    auto *page = new QWidget;
    auto *layout = new QVBoxLayout(page);
    layout->addWidget(heading(tr("Your Desk")));
    layout->addWidget(paragraph(SettingsTable::help(QStringLiteral("screens"))));
    mainDisplay = new QRadioButton(tr("Main display"));
    allDisplays = new QRadioButton(tr("All displays"));
    auto *group = new QButtonGroup(page);
    group->addButton(mainDisplay);
    group->addButton(allDisplays);
    layout->addWidget(mainDisplay);
    layout->addWidget(allDisplays);
    hideIcons = new QCheckBox(tr("Hide desktop icons"));
    hideIcons->setObjectName(QStringLiteral("hideIcons"));
    layout->addSpacing(8);
    layout->addWidget(hideIcons);
    if (!s.cleaner || !s.cleaner->available()) {
        hideIcons->setEnabled(false);
        layout->addWidget(paragraph(s.cleaner ? s.cleaner->statusText() : DesktopCleaner::unavailableText()));
    }
    layout->addSpacing(8);
    saver = new QCheckBox(SettingsTable::label(QStringLiteral("ecoMode")));
    layout->addWidget(saver);
    layout->addWidget(paragraph(SettingsTable::help(QStringLiteral("ecoMode"))));
    layout->addStretch();
    return page;
}

QWidget *OnboardingWindow::donePage()
{
    auto *page = new QWidget;
    auto *layout = new QVBoxLayout(page);
    layout->addWidget(heading(tr("All Set")));
    layout->addWidget(paragraph(tr("The room is on your desktop. Click Turnelo’s icon in the panel for the light, "
                                   "the framing and the effects; right-click it for the short menu.")));
    layout->addWidget(paragraph(tr("Everything can be changed later in Settings.")));
    layout->addStretch();
    return page;
}

int OnboardingWindow::step() const { return pages->currentIndex() + 1; }

void OnboardingWindow::show(int step)
{
    pages->setCurrentIndex(std::clamp(step, 1, stepCount) - 1);
    stepShown();
    QWidget::show();
    raise();
    activateWindow();
}

void OnboardingWindow::stepShown()
{
    const int at = step();
    back->setVisible(at > 1);
    next->setText(at == stepCount ? tr("Done") : tr("Continue"));
    switch (at) {
    case 1:
        if (picture->pixmap().isNull()) {
            QImage room = s.roomPicture ? s.roomPicture(QSize(480, 270)) : QImage();
            if (room.isNull()) room = placeholderRoom(QSize(480, 270));
            picture->setPixmap(
                QPixmap::fromImage(room.scaled(480, 270, Qt::KeepAspectRatio, Qt::SmoothTransformation)));
        }
        break;
    case 2:
        if (s.music) s.music->refresh();
        refreshPlayers();
        break;
    case 3:
        (s.settings->allScreens() ? allDisplays : mainDisplay)->setChecked(true);
        hideIcons->setChecked(s.cleaner && s.cleaner->available() && s.cleaner->current().hideIcons);
        saver->setChecked(s.settings->ecoMode());
        break;
    default:
        break;
    }
}

void OnboardingWindow::refreshPlayers()
{
    players->clear();
    const auto seen = s.music ? s.music->players() : QList<MusicPermission::Player>();
    for (const MusicPermission::Player &p : seen)
        players->addItem(p.source.name + QStringLiteral(" — ") + MusicPermission::statusText(p.status));
    if (seen.isEmpty()) players->addItem(tr("No player is open right now. Start one and it shows up here."));
}

void OnboardingWindow::leaveStep(int at)
{
    switch (at) {
    case 2:
        if (s.music)
            s.music->markSetupDone();
        else
            s.settings->setMusicSetupDone(true);
        break;
    case 3: {
        const bool all = allDisplays->isChecked();
        if (all != s.settings->allScreens()) s.setScreens ? s.setScreens(all) : s.settings->setAllScreens(all);
        if (saver->isChecked() != s.settings->ecoMode())
            s.power ? s.power->setEcoEnabled(saver->isChecked()) : s.settings->setEcoMode(saver->isChecked());
        if (s.cleaner && s.cleaner->available() && hideIcons->isChecked() != s.cleaner->current().hideIcons) {
            const DesktopCleaner::Desired now = s.cleaner->current();
            DesktopTab::confirmAndApply(this, s, hideIcons->isChecked(), now.hideWidgets, now.clickOnlyInStageManager);
        }
        break;
    }
    case stepCount:
        s.settings->setOnboardingDone(true);
        break;
    default:
        break;
    }
}

void OnboardingWindow::goOn()
{
    const int at = step();
    leaveStep(at);
    if (at == stepCount) {
        close();
        return;
    }
    pages->setCurrentIndex(at);
    stepShown();
}

void OnboardingWindow::goBack()
{
    if (step() > 1) {
        pages->setCurrentIndex(step() - 2);
        stepShown();
    }
}
