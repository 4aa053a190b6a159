// Salvaging a damaged state file: a history index of N entries torn halfway (two entries run
// together), as a disk or a crash may leave it. Prints, per size, the closed prefixes parsed and
// the best of three times for StateFile::salvage, which runs on every start until the file is
// written anew.
#include "core/app/StateFile.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <algorithm>
#include <cstdio>

int main()
{
    for (const int count : {2200, 22000}) {
        QJsonArray entries;
        for (int i = 0; i < count; ++i)
            entries.append(QJsonObject{{"album", QStringLiteral("Live, [disc %1] {\"best\"}").arg(i)},
                                       {"file", QStringLiteral("%1.jpg").arg(i, 16, 16, QLatin1Char('0'))}});
        QByteArray damaged = QJsonDocument(entries).toJson(QJsonDocument::Compact);
        const QByteArray middle = QStringLiteral("[disc %1]").arg(count / 2).toUtf8();
        const qsizetype tear = damaged.indexOf(middle);
        damaged.remove(tear, damaged.indexOf("file", damaged.indexOf(middle) + middle.size()) - tear);

        double best = 1e99;
        int parses = 0;
        qsizetype kept = 0;
        for (int run = 0; run < 3; ++run) {
            QElapsedTimer timer;
            timer.start();
            const auto doc = StateFile::salvage(damaged, &parses);
            best = std::min(best, timer.nsecsElapsed() / 1e6);
            kept = doc ? doc->array().size() : 0;
        }
        std::printf("%7.0f KB, %5d entries: %lld kept, %d parses, %.1f ms\n", damaged.size() / 1024.0, count,
                    static_cast<long long>(kept), parses, best);
    }
}
