#include "ui/MusicTab.h"

#include "core/app/Settings.h"
#include "core/app/SettingsTable.h"
#include "core/music/HistoryStore.h"
#include "core/music/MusicPermission.h"
#include "core/music/PlayerState.h"
#include "ui/SettingControls.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

using namespace SettingControls;

MusicTab::MusicTab(const UiServices &services, QWidget *parent)
    : QWidget(parent)
    , s(services)
{
    auto *layout = new QVBoxLayout(this);
    Settings &st = *s.settings;

    addTitle(layout, tr("Players"));
    addSwitch(
        layout, st, QStringLiteral("musicSetupDone"), [&st] { return st.musicSetupDone(); },
        [this, &st](bool on) {
            // Switching on starts following now; switching off takes effect at the next start.
            if (on && s.music)
                s.music->markSetupDone();
            else
                st.setMusicSetupDone(on);
        });
    players = new QListWidget;
    players->setObjectName(QStringLiteral("players"));
    players->setSelectionMode(QAbstractItemView::NoSelection);
    players->setMaximumHeight(110);
    layout->addWidget(players);
    following = new QLabel;
    following->setWordWrap(true);
    layout->addWidget(following);
    if (s.music) connect(s.music, &MusicPermission::changed, this, &MusicTab::refreshPlayers);
    if (s.state) connect(s.state, &PlayerState::trackChanged, this, &MusicTab::refreshPlayers);
    connect(&st, &Settings::changed, this, [this](const QString &key) {
        if (key == QStringLiteral("musicSetupDone")) refreshPlayers();
    });

    addTitle(layout, tr("Record Stack"));
    auto *row = new QHBoxLayout;
    auto *limit = new QSpinBox;
    limit->setObjectName(QStringLiteral("stackLimit"));
    limit->setRange(1, 50);
    limit->setValue(st.stackLimit());
    connect(limit, &QSpinBox::valueChanged, this, [&st](int n) { st.setStackLimit(n); });
    connect(&st, &Settings::changed, limit, [limit, &st](const QString &key) {
        if (key != QStringLiteral("stackLimit")) return;
        const QSignalBlocker block(limit);
        limit->setValue(st.stackLimit());
    });
    row->addWidget(limit);
    row->addWidget(new QLabel(SettingsTable::help(QStringLiteral("stackLimit"))), 1);
    layout->addLayout(row);
    auto *clear = new QPushButton(tr("Clear History…"));
    clear->setObjectName(QStringLiteral("clearHistory"));
    clear->setEnabled(s.history != nullptr);
    connect(clear, &QPushButton::clicked, this, [this] {
        QMessageBox ask(QMessageBox::Warning, tr("Clear the record stack history?"),
                        tr("Clear the record stack history?"), QMessageBox::Cancel, this);
        ask.setInformativeText(tr("The covers saved on this computer are deleted. The stack fills up again as you "
                                  "play music."));
        ask.addButton(tr("Clear History"), QMessageBox::DestructiveRole);
        ask.exec();
        if (ask.buttonRole(ask.clickedButton()) == QMessageBox::DestructiveRole) s.history->clear();
    });
    auto *clearRow = new QHBoxLayout;
    clearRow->addWidget(clear);
    clearRow->addStretch();
    layout->addLayout(clearRow);
    layout->addStretch();
    refreshPlayers();
}

void MusicTab::showEvent(QShowEvent *event)
{
    if (s.music) s.music->refresh();
    QWidget::showEvent(event);
}

void MusicTab::refreshPlayers()
{
    players->clear();
    const QList<MusicPermission::Player> seen = s.music ? s.music->players() : QList<MusicPermission::Player>();
    for (const MusicPermission::Player &p : seen)
        players->addItem(p.source.name + QStringLiteral(" — ") + MusicPermission::statusText(p.status));
    if (seen.isEmpty())
        players->addItem(tr("No player is open. Open one that shows in your desktop’s media controls."));
    const auto &track = s.state ? s.state->track() : std::nullopt;
    if (!s.settings->musicSetupDone())
        following->setText(tr("Turnelo doesn’t follow any player yet."));
    else if (track)
        following->setText(tr("Following %1: %2 — %3").arg(track->source.name, track->artist, track->title));
    else
        following->setText(tr("Following the player that plays; Spotify first when several do."));
}
