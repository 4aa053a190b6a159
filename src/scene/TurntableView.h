#pragma once

#include <QRasterWindow>

class PlayerState;

// The plain turntable shown when the room cannot be: no scene installed, a scene that does
// not load, or no GPU. Drawn with the painter from the player state alone. Main thread.
class TurntableView : public QRasterWindow {
    Q_OBJECT
public:
    TurntableView(PlayerState &state, QWindow *parent);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    PlayerState &state;
};
