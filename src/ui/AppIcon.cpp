#include "ui/AppIcon.h"

#include <QPainter>
#include <QPixmap>
#include <algorithm>

namespace AppIcon {

QImage draw(int side)
{
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF disc(side * 0.06, side * 0.06, side * 0.88, side * 0.88);
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(40, 40, 40));
    p.drawEllipse(disc);
    p.setPen(QPen(QColor(110, 110, 110), std::max(1.0, side / 24.0)));
    p.setBrush(Qt::NoBrush);
    p.drawEllipse(disc.adjusted(side * 0.14, side * 0.14, -side * 0.14, -side * 0.14));
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(200, 60, 50));
    p.drawEllipse(disc.center(), side * 0.15, side * 0.15);
    p.setBrush(QColor(235, 235, 235));
    p.drawEllipse(disc.center(), side * 0.035, side * 0.035);
    return image;
}

const QList<int> &sizes()
{
    static const QList<int> list{16, 22, 24, 32, 48, 64, 128, 256};
    return list;
}

QIcon icon()
{
    QIcon icon;
    for (int side : sizes()) icon.addPixmap(QPixmap::fromImage(draw(side)));
    return icon;
}

}  // namespace AppIcon
