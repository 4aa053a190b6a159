#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// A desktop's command-line preference tool (xfconf-query, gsettings), run to its end in the C
// locale so that its messages can be recognised. A tool that cannot be started is logged with
// the desktop cleaner's prefix.
class PreferenceTool {
public:
    struct Result {
        bool started = false;
        int exitCode = -1;
        QByteArray out;
        QByteArray err;
        bool ok() const { return started && exitCode == 0; }
    };

    // `program` is a name looked up in PATH, or a path.
    explicit PreferenceTool(QString program);

    QString program() const { return path; }
    bool found() const;
    Result run(const QStringList &arguments) const;

private:
    QString path;
};
