#pragma once

#include "ui/UiServices.h"

#include <QWidget>

// The settings window's About tab. Main thread.
class AboutTab : public QWidget {
    Q_OBJECT
public:
    explicit AboutTab(const UiServices &services, QWidget *parent = nullptr);

private:
    void refresh();

    UiServices s;
    class QLabel *version = nullptr;
    class QLabel *scene = nullptr;
};
