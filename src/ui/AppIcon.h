#pragma once

#include <QIcon>
#include <QImage>

// Turnelo's icon, a record seen from above, drawn at any size: the tray's icon, the windows'
// icon and the PNG files that `cmake --install` puts in the hicolor theme.
namespace AppIcon {

QImage draw(int side);
// The sizes a desktop's icon theme asks for.
const QList<int> &sizes();
QIcon icon();

}  // namespace AppIcon
