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

    struct Case {
        LoopbackHttp::Reply reply;
        TransferLimits limits;  // maxBytes, idleMs, deadlineMs, minBytes, rateWindowMs
        const char *failure;    // how the reason begins
    };
    const Case cases[] = {
        // Announced too large: refused on the headers, before the body is taken in.
        {{"{}", 200, 0, 0, 64 * 1024, 0, qint64(1) << 32}, cap, "resposta anuncia 4294967296 bytes"},
        // No length and no end: cut a chunk past the cap, whatever the status.
        {{"<html>", 500, 0, -1, 64 * 1024}, cap, ""},
        // A byte now and then keeps an idle timer happy but not the floor on the rate, nor the deadline.
        {{"x", 200, 0, 1000, 1, 100}, {0, 2000, 0, 64, 500}, "lenta demais"},
        {{"x", 200, 0, 1000, 1, 100}, {0, 2000, 600, 0, 0}, "passou do prazo"},
        // Silence after the headers.
        {{"x", 200, 0, 10, 1, 5000}, {0, 300, 0, 0, 0}, "nenhum byte"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.failure);
        server.sent = 0;
        const Ended end = fetch(server, c.reply, c.limits);
        EXPECT_FALSE(end.ok);
        EXPECT_TRUE(!end.failure.isEmpty() && end.failure.startsWith(c.failure)) << end.failure.toStdString();
        EXPECT_LT(server.sent, 8 << 20) << " kept " << end.kept;
    }
}
