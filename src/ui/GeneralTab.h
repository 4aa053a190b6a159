#pragma once

#include "ui/UiServices.h"

#include <QWidget>

// The settings window's General tab. Main thread.
class GeneralTab : public QWidget {
    Q_OBJECT
public:
    explicit GeneralTab(const UiServices &services, QWidget *parent = nullptr);

private:
    UiServices s;
};
