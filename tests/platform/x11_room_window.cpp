// A room desktop window in a process of its own, on Qt's xcb platform, for the X11 desktop
// tests: a full-screen window painted in a flat test colour, prepared as the desktop window,
// kept in place by X11DesktopStacking. Prints "window <id>" once shown and runs until its
// standard input closes.

#include "platform/linux/X11DesktopStacking.h"
#include "platform/linux/X11DesktopWindow.h"

#include <QGuiApplication>
#include <QPainter>
#include <QRasterWindow>
#include <QScreen>
#include <QSocketNotifier>
#include <cstdio>
#include <unistd.h>

namespace {

class RoomWindow : public QRasterWindow {
protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.fillRect(QRect(QPoint(0, 0), size()), QColor(0x20, 0x90, 0x60));
    }
};

}  // namespace

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "xcb");
    QGuiApplication app(argc, argv);

    RoomWindow window;
    window.setGeometry(app.primaryScreen()->geometry());
    window.create();
    if (!X11DesktopWindow::prepare(&window)) {
        std::fprintf(stderr, "not on X11\n");
        return 2;
    }
    X11DesktopStacking stacking;
    stacking.add(&window);
    window.show();
    std::printf("window %llu\n", static_cast<unsigned long long>(window.winId()));
    std::fflush(stdout);

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&] {
        char buffer[64];
        if (::read(STDIN_FILENO, buffer, sizeof buffer) <= 0) app.quit();
    });
    return app.exec();
}
