#include "ui/FramingTile.h"

#include <QPainter>
#include <QPainterPath>

using Kind = PopoverModel::Tile::Kind;

FramingTile::FramingTile(QWidget *parent)
    : QAbstractButton(parent)
{
    setCursor(Qt::PointingHandCursor);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void FramingTile::setTile(const PopoverModel::Tile &tile)
{
    data = tile;
    setAccessibleName(tile.title);
    setToolTip(tile.text);
    // A tile at work takes no second click; one with nothing to get takes none at all.
    setEnabled(tile.kind != Kind::downloading && tile.kind != Kind::unavailable);
    update();
}

QSize FramingTile::sizeHint() const { return {150, 80}; }

void FramingTile::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF box = QRectF(rect()).adjusted(1, 1, -1, -1);
    // A tile at work is disabled but keeps its colours.
    const QPalette::ColorGroup group = QPalette::Active;
    const QColor accent = palette().color(group, QPalette::Highlight);
    QColor fill = palette().color(group, QPalette::Base);
    if (underMouse() && isEnabled()) fill = fill.darker(106);
    p.setPen(data.current ? QPen(accent, 2) : QPen(palette().color(group, QPalette::Mid), 1));
    p.setBrush(fill);
    p.drawRoundedRect(box, 8, 8);

    const QRectF inner = box.adjusted(10, 8, -10, -8);
    QFont title = font();
    title.setBold(true);
    p.setFont(title);
    p.setPen(palette().color(group, QPalette::Text));
    const QFontMetricsF tm(title);
    p.drawText(QRectF(inner.topLeft(), QSizeF(inner.width(), tm.height())), Qt::AlignLeft | Qt::AlignVCenter,
               data.title);

    if (!data.sizeText.isEmpty() && data.kind != Kind::installed) {
        // The size badge, top right.
        QFont small = font();
        small.setPointSizeF(small.pointSizeF() * 0.8);
        const QFontMetricsF sm(small);
        const double w = sm.horizontalAdvance(data.sizeText) + 12;
        const QRectF badge(inner.right() - w, inner.top(), w, sm.height() + 4);
        p.setPen(Qt::NoPen);
        p.setBrush(palette().color(group, QPalette::Mid));
        p.drawRoundedRect(badge, badge.height() / 2, badge.height() / 2);
        p.setFont(small);
        p.setPen(palette().color(group, QPalette::Base));
        p.drawText(badge, Qt::AlignCenter, data.sizeText);
    }

    QFont small = font();
    small.setPointSizeF(small.pointSizeF() * 0.85);
    p.setFont(small);
    const QRectF below(inner.left(), inner.top() + tm.height() + 4, inner.width(),
                       inner.bottom() - inner.top() - tm.height() - 4);
    if (data.kind == Kind::downloading) {
        const QRectF bar(below.left(), below.top() + 4, below.width(), 6);
        p.setPen(Qt::NoPen);
        p.setBrush(palette().color(group, QPalette::Midlight));
        p.drawRoundedRect(bar, 3, 3);
        p.setBrush(accent);
        p.drawRoundedRect(QRectF(bar.topLeft(), QSizeF(bar.width() * data.progress, bar.height())), 3, 3);
        p.setPen(palette().color(group, QPalette::PlaceholderText));
        p.drawText(below.adjusted(0, 14, 0, 0), Qt::AlignLeft | Qt::AlignTop, data.text);
        return;
    }
    p.setPen(data.kind == Kind::failed ? QColor(0xc0, 0x39, 0x2b) : palette().color(group, QPalette::PlaceholderText));
    p.drawText(below, Qt::AlignLeft | Qt::AlignTop | Qt::TextWordWrap, data.text);
}
