#pragma once

#include "ui/PopoverModel.h"

#include <QFrame>
#include <QList>
#include <QTimer>

class FramingTile;
class LightDial;
class QCheckBox;
class QGridLayout;
class QLabel;
class QProgressBar;
class QPushButton;
class QToolButton;

// The tray popover: a frameless popup under the tray icon (or at the cursor) with the room's
// status, what plays, the light dial, the framing tiles, the effects, the room switch,
// Settings… and Quit. It closes when it loses focus or on Escape. Main thread.
class PopoverWindow : public QFrame {
    Q_OBJECT
public:
    explicit PopoverWindow(const UiServices &services, QWidget *parent = nullptr);
    ~PopoverWindow() override;

    // Opens next to `anchor` (the tray icon's screen rectangle); an empty one means the cursor.
    void popup(const QRect &anchor);
    // Where popup() puts a window of `size` for `anchor` on a screen whose free area is `screen`.
    static QPoint placement(const QRect &anchor, const QPoint &cursor, const QSize &size, const QRect &screen);

    PopoverModel &model() { return viewModel; }
    LightDial *lightDial() const { return dial; }
    QList<FramingTile *> framingTiles() const { return tiles; }
    QMenu *effectsMenu() const;

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void refresh();
    void refreshTiles();

    PopoverModel viewModel;
    QTimer clockHand;  // runs only while open: a hidden popover must not wake the process
    QLabel *header = nullptr;
    QLabel *status = nullptr;
    QProgressBar *installBar = nullptr;
    QLabel *cover = nullptr;
    QLabel *trackTitle = nullptr;
    QLabel *trackDetails = nullptr;
    QPushButton *connectMusic = nullptr;
    LightDial *dial = nullptr;
    QLabel *lightCaption = nullptr;
    QGridLayout *tileGrid = nullptr;
    QList<FramingTile *> tiles;
    QToolButton *effects = nullptr;
    QCheckBox *showRoom = nullptr;
};
