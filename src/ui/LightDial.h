#pragma once

#include <QDateTime>
#include <QStringList>
#include <QWidget>
#include <optional>

// The light section's dial: the four canonical presets as the quarters of a day ring (morning
// at the top, then clockwise), "Automatic (follows the clock)" in the middle, and a hand where
// the clock stands on the ring. A click on a quarter or the middle emits `chosen`.
class LightDial : public QWidget {
    Q_OBJECT
public:
    explicit LightDial(QWidget *parent = nullptr);

    // `offered`: presets the scene has; `mode`: "auto" or a preset; `active`: the preset lit now;
    // `clock`: the hand's place on the ring, 0…1 from the top, or none.
    void setState(const QStringList &offered, const QString &mode, const QString &active, std::optional<double> clock);

    // What a click at `point` picks: "auto", a preset, or empty.
    QString modeAt(QPointF point) const;
    // The middle of a mode's target on the dial.
    QPointF centerOf(const QString &mode) const;

    QSize sizeHint() const override;

signals:
    void chosen(const QString &mode);

protected:
    void paintEvent(QPaintEvent *) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    QPointF center() const;
    double outerRadius() const;
    double innerRadius() const;
    // The point `radius` from the centre in the middle of quarter `i` (0 at the top, then clockwise).
    QPointF onQuarter(int i, double radius) const;

    QStringList offered;
    QString mode = QStringLiteral("auto");
    QString active;
    std::optional<double> clock;
};
