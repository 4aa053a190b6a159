#pragma once

#include "ui/UiServices.h"

#include <QWidget>

class QCheckBox;
class QLabel;
class QListWidget;
class QPushButton;
class QRadioButton;
class QStackedWidget;

// First-run welcome in four steps: the room, music (the players seen now; going on marks
// "musicSetupDone", which starts the now-playing monitor), the desk (displays, desktop icons,
// battery saver) and done ("onboardingDone"). Main thread.
class OnboardingWindow : public QWidget {
    Q_OBJECT
public:
    static constexpr int stepCount = 4;

    explicit OnboardingWindow(const UiServices &services, QWidget *parent = nullptr);

    // Shows the window in front at `step` (1…4).
    void show(int step);
    int step() const;
    // Continue / Done, as the button does.
    void goOn();
    void goBack();
    QPushButton *continueButton() const { return next; }

private:
    QWidget *welcomePage();
    QWidget *musicPage();
    QWidget *deskPage();
    QWidget *donePage();
    void stepShown();
    void leaveStep(int step);
    void refreshPlayers();

    UiServices s;
    QStackedWidget *pages = nullptr;
    QPushButton *back = nullptr;
    QPushButton *next = nullptr;
    QLabel *picture = nullptr;
    QListWidget *players = nullptr;
    QRadioButton *allDisplays = nullptr;
    QRadioButton *mainDisplay = nullptr;
    QCheckBox *hideIcons = nullptr;
    QCheckBox *saver = nullptr;
};
