#include "ui/LightDial.h"

#include "core/lighting/LightMixer.h"
#include "core/scene/PlateManifest.h"

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <cmath>

namespace {

const QColor kPresetColor[4] = {QColor(0xf2, 0xd6, 0x9c), QColor(0xb9, 0xdc, 0xf2), QColor(0xee, 0xa2, 0x62),
                                QColor(0x33, 0x45, 0x70)};

// Degrees clockwise from the top → Qt's degrees counter-clockwise from three o'clock.
double qtAngle(double clockwise) { return 90.0 - clockwise; }

}  // namespace

LightDial::LightDial(QWidget *parent)
    : QWidget(parent)
{
    setAttribute(Qt::WA_Hover);
    setCursor(Qt::PointingHandCursor);
    setMinimumSize(sizeHint());
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setToolTip(tr("Automatic (follows the clock)"));
}

void LightDial::setState(const QStringList &o, const QString &m, const QString &a, std::optional<double> c)
{
    offered = o;
    mode = m;
    active = a;
    clock = c;
    update();
}

QSize LightDial::sizeHint() const { return {300, 168}; }

QPointF LightDial::center() const { return QPointF(width() / 2.0, height() / 2.0); }
double LightDial::outerRadius() const { return std::max(20.0, std::min(width() / 2.0 - 70, height() / 2.0 - 22)); }
double LightDial::innerRadius() const { return outerRadius() * 0.42; }

QString LightDial::modeAt(QPointF p) const
{
    const QPointF d = p - center();
    const double r = std::hypot(d.x(), d.y());
    if (r <= innerRadius()) return QStringLiteral("auto");
    if (r > outerRadius()) return {};
    double clockwise = std::atan2(d.x(), -d.y()) * 180.0 / M_PI;
    if (clockwise < 0) clockwise += 360;
    const QString preset = PlateManifest::canonicalPresets().value(int(std::lround(clockwise / 90.0)) % 4);
    return offered.contains(preset) ? preset : QString();
}

QPointF LightDial::centerOf(const QString &m) const
{
    const qsizetype index = PlateManifest::canonicalPresets().indexOf(m);
    return index < 0 ? center() : onQuarter(int(index), (innerRadius() + outerRadius()) / 2);
}

QPointF LightDial::onQuarter(int i, double radius) const
{
    const double rad = i * M_PI / 2;
    return center() + QPointF(std::sin(rad) * radius, -std::cos(rad) * radius);
}

void LightDial::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QPointF c = center();
    const double R = outerRadius(), r = innerRadius();
    const QRectF outer(c.x() - R, c.y() - R, 2 * R, 2 * R);
    const QColor text = palette().color(QPalette::WindowText);
    const QColor accent = palette().color(QPalette::Highlight);

    for (int i = 0; i < 4; ++i) {
        const QString preset = PlateManifest::canonicalPresets()[i];
        const bool available = offered.contains(preset);
        const bool picked = mode == preset;
        QPainterPath slice;
        slice.moveTo(c);
        slice.arcTo(outer, qtAngle(i * 90.0 - 44.0), -88.0);
        slice.closeSubpath();
        QColor fill = kPresetColor[i];
        if (!available)
            fill.setAlpha(50);
        else if (mode == QStringLiteral("auto") && preset != active)
            fill.setAlpha(150);
        p.setPen(picked ? QPen(accent, 3) : QPen(Qt::NoPen));
        p.setBrush(fill);
        p.drawPath(slice);

        // The preset's name outside the ring, at its quarter.
        const QPointF at = onQuarter(i, R + 8);
        QFont f = font();
        f.setBold(picked || (mode == QStringLiteral("auto") && preset == active));
        p.setFont(f);
        p.setPen(available ? text : palette().color(QPalette::PlaceholderText));
        const QString name = LightPresets::name(preset);
        const QFontMetricsF fm(f);
        QRectF box(0, 0, fm.horizontalAdvance(name) + 2, fm.height());
        switch (i) {
        case 0:
            box.moveCenter(at - QPointF(0, fm.height() / 2));
            break;
        case 1:
            box.moveTopLeft(at + QPointF(0, -fm.height() / 2));
            break;
        case 2:
            box.moveCenter(at + QPointF(0, fm.height() / 2));
            break;
        default:
            box.moveTopRight(at + QPointF(0, -fm.height() / 2));
            break;
        }
        p.drawText(box, Qt::AlignCenter, name);
    }

    // The middle: Automatic.
    const bool automatic = mode == QStringLiteral("auto");
    p.setPen(automatic ? QPen(accent, 3) : QPen(palette().color(QPalette::Mid), 1));
    p.setBrush(palette().color(QPalette::Base));
    p.drawEllipse(c, r, r);
    QFont f = font();
    f.setBold(automatic);
    f.setPointSizeF(f.pointSizeF() * 0.9);
    p.setFont(f);
    p.setPen(text);
    p.drawText(QRectF(c.x() - r, c.y() - r, 2 * r, 2 * r), Qt::AlignCenter, tr("Auto"));

    // The clock's hand, on the ring.
    if (clock) {
        const double rad = *clock * 2 * M_PI;
        const QPointF dir(std::sin(rad), -std::cos(rad));
        p.setPen(QPen(automatic ? accent : palette().color(QPalette::Mid), 2.5, Qt::SolidLine, Qt::RoundCap));
        p.drawLine(c + dir * (r + 2), c + dir * (R - 2));
        p.setBrush(automatic ? accent : palette().color(QPalette::Mid));
        p.drawEllipse(c + dir * (R - 2), 3.5, 3.5);
    }
}

void LightDial::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) return;
    const QString picked = modeAt(event->position());
    if (!picked.isEmpty()) emit chosen(picked);
}
