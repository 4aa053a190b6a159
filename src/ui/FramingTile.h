#pragma once

#include "ui/PopoverModel.h"

#include <QAbstractButton>

// One framing in the popover: installed ones switch the room; downloadable ones carry a size
// badge, then a progress bar while they download, or the failure text that a click retries;
// unavailable ones (not on disk, not offered) only say so.
class FramingTile : public QAbstractButton {
    Q_OBJECT
public:
    explicit FramingTile(QWidget *parent = nullptr);

    void setTile(const PopoverModel::Tile &tile);
    const PopoverModel::Tile &tile() const { return data; }

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *) override;

private:
    PopoverModel::Tile data;
};
