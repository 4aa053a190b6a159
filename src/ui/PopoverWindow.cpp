#include "ui/PopoverWindow.h"

#include "core/lighting/LightMixer.h"
#include "ui/FramingTile.h"
#include "ui/LightDial.h"

#include <QCheckBox>
#include <QCursor>
#include <QGridLayout>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

namespace {

QLabel *sectionTitle(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    QFont f = label->font();
    f.setBold(true);
    f.setPointSizeF(f.pointSizeF() * 0.85);
    label->setFont(f);
    label->setForegroundRole(QPalette::PlaceholderText);
    return label;
}

QFrame *separator(QWidget *parent)
{
    auto *line = new QFrame(parent);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Plain);
    line->setForegroundRole(QPalette::Midlight);
    return line;
}

}  // namespace

PopoverWindow::PopoverWindow(const UiServices &services, QWidget *parent)
    : QFrame(parent, Qt::Popup | Qt::FramelessWindowHint)
    , viewModel(services)
{
    setObjectName(QStringLiteral("TurneloPopover"));
    setFrameShape(QFrame::StyledPanel);
    setAutoFillBackground(true);
    setFixedWidth(340);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(14, 12, 14, 12);
    layout->setSpacing(8);

    // Header and status.
    auto *top = new QHBoxLayout;
    auto *name = new QLabel(QStringLiteral("Turnelo"), this);
    QFont big = name->font();
    big.setBold(true);
    big.setPointSizeF(big.pointSizeF() * 1.15);
    name->setFont(big);
    header = new QLabel(this);
    header->setForegroundRole(QPalette::PlaceholderText);
    top->addWidget(name);
    top->addStretch();
    top->addWidget(header);
    layout->addLayout(top);
    status = new QLabel(this);
    status->setWordWrap(true);
    status->setForegroundRole(QPalette::PlaceholderText);
    layout->addWidget(status);
    installBar = new QProgressBar(this);
    installBar->setRange(0, 1000);
    installBar->setTextVisible(false);
    installBar->setFixedHeight(6);
    layout->addWidget(installBar);
    layout->addWidget(separator(this));

    // Now playing.
    layout->addWidget(sectionTitle(tr("Now Playing"), this));
    auto *playing = new QHBoxLayout;
    cover = new QLabel(this);
    cover->setFixedSize(64, 64);
    cover->setAlignment(Qt::AlignCenter);
    cover->setFrameShape(QFrame::StyledPanel);
    playing->addWidget(cover);
    auto *texts = new QVBoxLayout;
    trackTitle = new QLabel(this);
    QFont bold = trackTitle->font();
    bold.setBold(true);
    trackTitle->setFont(bold);
    trackTitle->setWordWrap(true);
    trackDetails = new QLabel(this);
    trackDetails->setWordWrap(true);
    trackDetails->setForegroundRole(QPalette::PlaceholderText);
    connectMusic = new QPushButton(this);
    connectMusic->setFlat(true);
    connectMusic->setCursor(Qt::PointingHandCursor);
    connectMusic->setStyleSheet(QStringLiteral("text-align: left; padding: 0;"));
    connect(connectMusic, &QPushButton::clicked, this, [this] {
        hide();
        // Straight to the music step.
        if (viewModel.services().showOnboarding) viewModel.services().showOnboarding(2);
    });
    texts->addWidget(trackTitle);
    texts->addWidget(trackDetails);
    texts->addWidget(connectMusic);
    texts->addStretch();
    playing->addLayout(texts, 1);
    layout->addLayout(playing);
    layout->addWidget(separator(this));

    // Light.
    layout->addWidget(sectionTitle(tr("Light"), this));
    dial = new LightDial(this);
    connect(dial, &LightDial::chosen, &viewModel, &PopoverModel::chooseLight);
    layout->addWidget(dial);
    lightCaption = new QLabel(this);
    lightCaption->setAlignment(Qt::AlignCenter);
    lightCaption->setForegroundRole(QPalette::PlaceholderText);
    layout->addWidget(lightCaption);
    layout->addWidget(separator(this));

    // Framings.
    layout->addWidget(sectionTitle(tr("Framing"), this));
    tileGrid = new QGridLayout;
    tileGrid->setSpacing(8);
    layout->addLayout(tileGrid);
    layout->addWidget(separator(this));

    // Effects, room, settings, quit.
    showRoom = new QCheckBox(tr("Show the turntable on the desktop"), this);
    connect(showRoom, &QCheckBox::toggled, &viewModel, &PopoverModel::setRoomShown);
    layout->addWidget(showRoom);
    auto *bottom = new QHBoxLayout;
    effects = new QToolButton(this);
    effects->setText(tr("Effects"));
    effects->setPopupMode(QToolButton::InstantPopup);
    effects->setMenu(new QMenu(effects));
    connect(effects->menu(), &QMenu::aboutToShow, this, [this] {
        QMenu *menu = effects->menu();
        menu->clear();
        for (const PopoverModel::Effect &e : viewModel.effects()) {
            QAction *a = menu->addAction(e.label);
            a->setCheckable(true);
            a->setChecked(e.on);
            a->setData(e.key);
            connect(a, &QAction::toggled, &viewModel, [this, key = e.key](bool on) { viewModel.setEffect(key, on); });
        }
    });
    auto *settings = new QPushButton(tr("Settings…"), this);
    connect(settings, &QPushButton::clicked, this, [this] {
        hide();
        if (viewModel.services().showSettings) viewModel.services().showSettings();
    });
    auto *quit = new QPushButton(tr("Quit"), this);
    connect(quit, &QPushButton::clicked, this, [this] {
        hide();
        if (viewModel.services().quit) viewModel.services().quit();
    });
    bottom->addWidget(effects);
    bottom->addStretch();
    bottom->addWidget(settings);
    bottom->addWidget(quit);
    layout->addLayout(bottom);

    connect(&viewModel, &PopoverModel::changed, this, &PopoverWindow::refresh);
    // The clock's hand moves while the popover is open.
    clockHand.setInterval(30000);
    connect(&clockHand, &QTimer::timeout, this, &PopoverWindow::refresh);
    refresh();
}

PopoverWindow::~PopoverWindow() = default;

QMenu *PopoverWindow::effectsMenu() const { return effects->menu(); }

void PopoverWindow::refresh()
{
    header->setText(viewModel.header());
    const QStringList lines = viewModel.statusLines();
    status->setText(lines.join(QLatin1Char('\n')));
    status->setVisible(!lines.isEmpty());
    const auto progress = viewModel.installProgress();
    installBar->setVisible(progress.has_value());
    installBar->setValue(int(progress.value_or(0) * 1000));

    const PopoverModel::NowPlaying n = viewModel.nowPlaying();
    if (n.hasTrack) {
        trackTitle->setText(n.title);
        QStringList details;
        for (const QString &part : {n.artist, n.album, n.side})
            if (!part.isEmpty()) details << part;
        details << (n.playing ? tr("Playing in %1") : tr("Paused in %1")).arg(n.player);
        trackDetails->setText(details.join(QLatin1Char('\n')));
        cover->setPixmap(n.cover.isNull() ? QPixmap()
                                          : QPixmap::fromImage(n.cover.scaled(cover->size(), Qt::KeepAspectRatio,
                                                                              Qt::SmoothTransformation)));
        cover->setText(n.cover.isNull() ? QStringLiteral("♪") : QString());
    } else {
        cover->setPixmap(QPixmap());
        cover->setText(QStringLiteral("♪"));
        trackTitle->setText(tr("Nothing playing"));
        trackDetails->setText(viewModel.musicConnected() ? n.emptyText : QString());
    }
    trackDetails->setVisible(!trackDetails->text().isEmpty());
    connectMusic->setText(n.emptyText);
    connectMusic->setVisible(!n.hasTrack && !viewModel.musicConnected());

    const QDateTime now = QDateTime::currentDateTime();
    const QString mode = viewModel.lightMode();
    const QString active = viewModel.activePreset(now);
    dial->setState(viewModel.lightPresets(), mode, active, viewModel.clockPosition(now));
    lightCaption->setText(mode == QStringLiteral("auto")
                              ? tr("Automatic (follows the clock) · now %1").arg(LightPresets::name(active))
                              : tr("%1 light all day · Auto follows the clock").arg(LightPresets::name(mode)));

    {
        const QSignalBlocker block(showRoom);
        showRoom->setChecked(viewModel.roomShown());
    }
    refreshTiles();
}

void PopoverWindow::refreshTiles()
{
    const QList<PopoverModel::Tile> wanted = viewModel.tiles();
    while (tiles.size() > wanted.size()) delete tiles.takeLast();
    while (tiles.size() < wanted.size()) {
        auto *tile = new FramingTile(this);
        connect(tile, &FramingTile::clicked, this, [this, tile] { viewModel.activateTile(tile->tile().name); });
        tileGrid->addWidget(tile, int(tiles.size()) / 2, int(tiles.size()) % 2);
        tiles << tile;
    }
    for (qsizetype i = 0; i < wanted.size(); ++i) tiles[i]->setTile(wanted[i]);
    if (isVisible()) adjustSize();
}

QPoint PopoverWindow::placement(const QRect &anchor, const QPoint &cursor, const QSize &size, const QRect &screen)
{
    QPoint at;
    if (anchor.isValid()) {
        // Under the icon for a panel at the top, above it for one at the bottom.
        at = QPoint(anchor.center().x() - size.width() / 2, anchor.bottom() + 4);
        if (at.y() + size.height() > screen.bottom()) at.setY(anchor.top() - 4 - size.height());
    } else {
        at = QPoint(cursor.x() - size.width() / 2, cursor.y() + 8);
        if (at.y() + size.height() > screen.bottom()) at.setY(cursor.y() - 8 - size.height());
    }
    at.setX(std::clamp(at.x(), screen.left(), std::max(screen.left(), screen.right() - size.width() + 1)));
    at.setY(std::clamp(at.y(), screen.top(), std::max(screen.top(), screen.bottom() - size.height() + 1)));
    return at;
}

void PopoverWindow::popup(const QRect &anchor)
{
    refresh();
    adjustSize();
    const QPoint cursor = QCursor::pos();
    QScreen *screen = QGuiApplication::screenAt(anchor.isValid() ? anchor.center() : cursor);
    if (!screen) screen = QGuiApplication::primaryScreen();
    move(placement(anchor, cursor, size(), screen ? screen->availableGeometry() : QRect(0, 0, 1280, 800)));
    show();
    raise();
    activateWindow();
}

void PopoverWindow::showEvent(QShowEvent *event)
{
    clockHand.start();
    QFrame::showEvent(event);
}

void PopoverWindow::hideEvent(QHideEvent *event)
{
    clockHand.stop();
    QFrame::hideEvent(event);
}

void PopoverWindow::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape) {
        hide();
        return;
    }
    QFrame::keyPressEvent(event);
}
