#pragma once

#include "ui/UiServices.h"

#include <QWidget>

// The settings window's Music tab. Main thread.
class MusicTab : public QWidget {
    Q_OBJECT
public:
    explicit MusicTab(const UiServices &services, QWidget *parent = nullptr);

protected:
    void showEvent(QShowEvent *event) override;

private:
    void refreshPlayers();

    UiServices s;
    class QListWidget *players = nullptr;
    class QLabel *following = nullptr;
};
