#pragma once

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QTimer>
#include <functional>
#include <optional>

class QFileSystemWatcher;

// Watches the scene root and its manifest, and calls `onSettled` once a copy or an unpack has
// been quiet for the debounce interval and the manifest's modification date has changed
// (appeared, vanished or moved). The root is fixed at creation: the resolved scene folder, or
// the installed root when nothing resolves, so a first installation is noticed. The root's parent
// is watched too, so a root replaced by renames is noticed as well.
// Main thread only; destroying or stop() cancels everything and no callback follows.
class PlatesWatcher : public QObject {
    Q_OBJECT
public:
    explicit PlatesWatcher(std::function<void()> onSettled, int debounceMs = 5000, QObject *parent = nullptr);
    // Watches a given root (tests, tools).
    PlatesWatcher(const QString &root, std::function<void()> onSettled, int debounceMs = 5000,
                  QObject *parent = nullptr);
    ~PlatesWatcher() override;

    void stop();
    QString manifestPath() const { return manifest; }

private:
    void start(const QString &root);
    void changed();
    void settle();
    void watchRoot();
    void watchManifest();

    std::function<void()> onSettled;
    QString root;
    QString manifest;
    std::optional<QDateTime> manifestDate;
    QFileSystemWatcher *sources = nullptr;
    QTimer debounce;
};
