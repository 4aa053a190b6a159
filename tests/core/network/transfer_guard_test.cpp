#include "core/network/TransferGuard.h"
#include "LoopbackHttp.h"
#include "TestSupport.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <gtest/gtest.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

struct Ended {
    bool ok = false;
    QString failure;
    qint64 kept = 0;  // body bytes the reply held at the end
};

Ended fetch(LoopbackHttp &server, const LoopbackHttp::Reply &reply, const TransferLimits &limits)
{
    server.answer = [reply](const QString &) { return reply; };
    QNetworkAccessManager network;
    QNetworkRequest request(QUrl(server.url("/body")));
    TransferGuard::prepare(request);
    QNetworkReply *r = network.get(request);
    TransferGuard::collect(r, limits);
    Ended end;
    bool done = false;
    QObject::connect(r, &QNetworkReply::finished, [&] {
        done = true;
        end.ok = r->error() == QNetworkReply::NoError;
        end.failure = TransferGuard::failureOf(r);
        end.kept = TransferGuard::bodyOf(r).size();
    });
    EXPECT_TRUE(waitUntil([&] { return done; }, 20s));
    delete r;
    return end;
}

}  // namespace

TEST(TransferGuard, EndsEveryTransferThatWouldNotEndOrWouldNotFit)
{
    LoopbackHttp server;
    const TransferLimits cap{.maxBytes = 1 << 20, .idleMs = 2000, .deadlineMs = 0, .minBytes = 0, .rateWindowMs = 0};

    // A body of exactly the cap passes whole.
    const Ended fits = fetch(server, {QByteArray(1000, 'a'), 200, 0, (1 << 20) - 1000, 64 * 1024}, cap);
    EXPECT_TRUE(fits.ok) << fits.failure.toStdString();
    EXPECT_EQ(fits.kept, 1 << 20);

    // Announced too large: refused on the headers, before the body is taken in.
    const Ended announced = fetch(server, {"{}", 200, 0, 0, 64 * 1024, 0, qint64(1) << 32}, cap);
    EXPECT_FALSE(announced.ok);
    EXPECT_TRUE(announced.failure.contains("4294967296")) << announced.failure.toStdString();

    // No length and no end: cut a chunk past the cap, whatever the status.
    server.sent = 0;
    const Ended endless = fetch(server, {"<html>", 500, 0, -1, 64 * 1024}, cap);
    EXPECT_FALSE(endless.ok);
    EXPECT_FALSE(endless.failure.isEmpty());
    EXPECT_LT(server.sent, 8 << 20) << endless.failure.toStdString() << " kept " << endless.kept;

    // A byte now and then keeps an idle timer happy but not the floor on the rate, nor the deadline.
    const Ended trickle = fetch(server, {"x", 200, 0, 1000, 1, 100},
                                {.maxBytes = 0, .idleMs = 2000, .deadlineMs = 0, .minBytes = 64, .rateWindowMs = 500});
    EXPECT_FALSE(trickle.ok);
    EXPECT_TRUE(trickle.failure.startsWith("lenta demais")) << trickle.failure.toStdString();
    const Ended late = fetch(server, {"x", 200, 0, 1000, 1, 100},
                             {.maxBytes = 0, .idleMs = 2000, .deadlineMs = 600, .minBytes = 0, .rateWindowMs = 0});
    EXPECT_TRUE(late.failure.startsWith("passou do prazo")) << late.failure.toStdString();

    // Silence after the headers.
    const Ended silent = fetch(server, {"x", 200, 0, 10, 1, 5000},
                               {.maxBytes = 0, .idleMs = 300, .deadlineMs = 0, .minBytes = 0, .rateWindowMs = 0});
    EXPECT_TRUE(silent.failure.startsWith("nenhum byte")) << silent.failure.toStdString();
}
