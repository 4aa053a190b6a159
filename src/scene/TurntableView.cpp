#include "scene/TurntableView.h"

#include "core/music/PlayerState.h"

#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>

TurntableView::TurntableView(PlayerState &s, QWindow *parent)
    : QRasterWindow(parent)
    , state(s)
{
    setFlags(Qt::FramelessWindowHint | Qt::WindowTransparentForInput | Qt::WindowDoesNotAcceptFocus);
    for (auto signal : {&PlayerState::trackChanged, &PlayerState::playingChanged, &PlayerState::artworkChanged})
        connect(&state, signal, this, [this] { update(); });
}

void TurntableView::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF r(QPointF(0, 0), size());
    p.fillRect(r, QColor(38, 32, 28));
    // The plinth, centred, 60% of the shorter side.
    const double side = std::min(r.width(), r.height()) * 0.6;
    const QRectF plinth(r.center().x() - side * 0.65, r.center().y() - side * 0.5, side * 1.3, side);
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(92, 62, 40));
    p.drawRoundedRect(plinth, side * 0.03, side * 0.03);
    const QPointF centre(plinth.left() + plinth.height() * 0.5, plinth.center().y());
    const double radius = plinth.height() * 0.42;
    QRadialGradient vinyl(centre, radius);
    vinyl.setColorAt(0, QColor(30, 30, 30));
    vinyl.setColorAt(1, QColor(12, 12, 12));
    p.setBrush(vinyl);
    p.drawEllipse(centre, radius, radius);
    p.setPen(QPen(QColor(45, 45, 45), 1));
    p.setBrush(Qt::NoBrush);
    for (double k = 0.45; k < 0.95; k += 0.08) p.drawEllipse(centre, radius * k, radius * k);
    // The label: the album's art when there is some, else a warm red.
    const double labelR = radius * 0.32;
    p.setPen(Qt::NoPen);
    if (!state.artwork().isNull()) {
        QPainterPath clip;
        clip.addEllipse(centre, labelR, labelR);
        p.save();
        p.setClipPath(clip);
        p.drawImage(QRectF(centre.x() - labelR, centre.y() - labelR, labelR * 2, labelR * 2), state.artwork());
        p.restore();
    } else {
        p.setBrush(QColor(170, 40, 36));
        p.drawEllipse(centre, labelR, labelR);
    }
    p.setBrush(QColor(200, 200, 200));
    p.drawEllipse(centre, radius * 0.03, radius * 0.03);
    // The arm: on the record while music plays, at rest otherwise.
    const QPointF pivot(plinth.right() - plinth.height() * 0.18, plinth.top() + plinth.height() * 0.18);
    const QPointF tip = state.isPlaying()
                            ? QPointF(centre.x() + radius * 0.55, centre.y() + radius * 0.2)
                            : QPointF(pivot.x() - plinth.height() * 0.02, pivot.y() + plinth.height() * 0.6);
    p.setPen(QPen(QColor(210, 210, 205), side * 0.018, Qt::SolidLine, Qt::RoundCap));
    p.drawLine(pivot, tip);
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(150, 150, 145));
    p.drawEllipse(pivot, side * 0.04, side * 0.04);
    if (state.track()) {
        p.setPen(QColor(230, 220, 205));
        QFont f = p.font();
        f.setPixelSize(int(std::max(12.0, side * 0.04)));
        p.setFont(f);
        const QRectF caption(plinth.left(), plinth.bottom() + side * 0.04, plinth.width(), side * 0.1);
        p.drawText(caption, Qt::AlignHCenter | Qt::AlignTop,
                   state.track()->title + QStringLiteral(" — ") + state.track()->artist);
    }
}
