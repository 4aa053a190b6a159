#pragma once

#include "ui/UiServices.h"

#include <QWidget>

// The settings window's Scene tab. Main thread.
class SceneTab : public QWidget {
    Q_OBJECT
public:
    explicit SceneTab(const UiServices &services, QWidget *parent = nullptr);

private:
    void refreshFramings();
    void refreshDownload();
    void refreshProblem();

    UiServices s;
    class QComboBox *framing = nullptr;
    class QLabel *problem = nullptr;
    class QLabel *download = nullptr;
};
