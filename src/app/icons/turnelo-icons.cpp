// turnelo-icons OUT_DIR: writes Turnelo's icon as OUT_DIR/hicolor/<n>x<n>/apps/turnelo.png for
// every size the icon theme asks for (a build step; `cmake --install` copies the tree).
#include "ui/AppIcon.h"

#include <QDir>
#include <QGuiApplication>
#include <cstdio>

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    if (argc != 2) {
        std::fputs("usage: turnelo-icons OUT_DIR\n", stderr);
        return 2;
    }
    for (int side : AppIcon::sizes()) {
        const QString dir = QStringLiteral("%1/hicolor/%2x%2/apps").arg(QString::fromLocal8Bit(argv[1])).arg(side);
        if (!QDir().mkpath(dir) || !AppIcon::draw(side).save(dir + QStringLiteral("/turnelo.png"))) {
            std::fprintf(stderr, "turnelo-icons: cannot write %s\n", qPrintable(dir));
            return 1;
        }
    }
    return 0;
}
