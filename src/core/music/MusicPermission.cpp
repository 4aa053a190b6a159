#include "core/music/MusicPermission.h"

#include "core/app/Settings.h"

#include <QCoreApplication>
#include <QPointer>

MusicPermission::MusicPermission(Settings &s, Probe p, QObject *parent)
    : QObject(parent)
    , settings(s)
    , probe(std::move(p))
{
    refresh();
}

void MusicPermission::refresh()
{
    QList<Player> next;
    if (probe.players)
        for (const PlayerSource &source : probe.players())
            next.append({source, probe.status ? probe.status(source) : Status::notDetermined});
    if (next == table) return;
    table = next;
    emit changed();
}

void MusicPermission::request(const PlayerSource &source, std::function<void(Status)> done)
{
    QPointer<MusicPermission> self(this);
    auto answer = [self, source, done](Status status) {
        if (!self) return;
        for (Player &p : self->table)
            if (p.source == source && p.status != status) {
                p.status = status;
                emit self->changed();
            }
        if (done) done(status);
    };
    if (probe.request)
        probe.request(source, answer);
    else
        answer(probe.status ? probe.status(source) : Status::notDetermined);
}

bool MusicPermission::setupDone() const { return settings.musicSetupDone(); }

void MusicPermission::markSetupDone()
{
    if (settings.musicSetupDone()) return;
    settings.setMusicSetupDone(true);
    emit setupFinished();
}

QString MusicPermission::statusText(Status status)
{
    switch (status) {
    case Status::notDetermined:
        return QCoreApplication::translate("MusicPermission", "Not asked yet");
    case Status::granted:
        return QCoreApplication::translate("MusicPermission", "Allowed");
    case Status::denied:
        return QCoreApplication::translate("MusicPermission", "Not allowed");
    case Status::notRunning:
        return QCoreApplication::translate("MusicPermission", "Not open");
    case Status::available:
        return QCoreApplication::translate("MusicPermission", "Open, Turnelo can read it");
    }
    return {};
}

QString MusicPermission::promptTitle(const QString &playerName)
{
    return QCoreApplication::translate("MusicPermission", "“Turnelo” wants access to control “%1”.").arg(playerName);
}

QString MusicPermission::promptBody(const QString &playerName)
{
    return QCoreApplication::translate("MusicPermission",
                                       "Allowing control will provide access to documents and data in “%1”, and to "
                                       "perform actions within that app. Turnelo only asks what is playing.")
        .arg(playerName);
}

QString MusicPermission::promptAllow() { return QCoreApplication::translate("MusicPermission", "Allow"); }
QString MusicPermission::promptDeny() { return QCoreApplication::translate("MusicPermission", "Don’t Allow"); }
