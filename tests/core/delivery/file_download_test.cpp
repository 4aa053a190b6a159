#include "NginxServer.h"
#include "ScenePackages.h"
#include "TestSupport.h"
#include "core/delivery/FileDownload.h"

#include <QNetworkAccessManager>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace std::chrono_literals;
using testsupport::readFile;
using testsupport::waitUntil;

namespace {

struct Transfer {
    FileDownload::Outcome outcome;
    bool finished = false;
};

Transfer fetch(const QString &url, const QString &file, qint64 total, const QByteArray &range = {},
               std::function<void(FileDownload &, qint64)> duringProgress = {})
{
    Transfer t;
    FileDownload download(file, total);
    download.onProgress = [&](qint64 received) {
        if (duringProgress) duringProgress(download, received);
    };
    download.onFinished = [&](const FileDownload::Outcome &o) {
        t.outcome = o;
        t.finished = true;
    };
    QNetworkRequest request{QUrl(url)};
    if (!range.isEmpty()) request.setRawHeader("Range", range);
    download.start(request);
    EXPECT_TRUE(waitUntil([&] { return t.finished; }, 60s));
    return t;
}

class FileDownloadTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start());
        body = scenepackages::randomBytes(3 << 20, 7);
        for (const char *name : {"/plain.bin", "/slow-plain.bin", "/shifted-plain.bin"})
            scenepackages::put(server.scenesDir() + name, body);
    }
    QString url(const QString &name) const { return server.baseURL() + "v1/scenes/" + name; }
    QString local(const QString &name) const { return tmp.path() + "/" + name; }

    NginxServer server{QStringLiteral("2m")};
    QTemporaryDir tmp;
    QByteArray body;
};

// Redirects are followed and the final answer counts.
TEST_F(FileDownloadTest, FullBodyReplacesTheFileAndReportsTheEntityTag)
{
    for (const QString &name :
         {QStringLiteral("plain.bin"), QStringLiteral("moved302-plain.bin"), QStringLiteral("moved308-plain.bin")}) {
        SCOPED_TRACE(name.toStdString());
        scenepackages::put(local(name), QByteArray(5 << 20, 'x'));  // longer stale content
        const Transfer t = fetch(url(name), local(name), body.size());
        ASSERT_TRUE(t.outcome.result) << (t.outcome.failure ? t.outcome.failure->message.toStdString() : "no answer");
        EXPECT_EQ(t.outcome.result->status, 200);
        EXPECT_TRUE(t.outcome.result->etag.has_value());
        EXPECT_EQ(t.outcome.result->received, body.size());
        EXPECT_TRUE(t.outcome.result->errorBody.isEmpty());
        EXPECT_EQ(readFile(local(name)), body);
    }
    // Compression would make byte ranges meaningless; no request may ask for it.
    ASSERT_EQ(server.accessLines().size(), 5);
    for (const QString &line : server.accessLines())
        EXPECT_TRUE(line.contains("ae=\"identity\"")) << line.toStdString();
}

// Appending at the file's end (206) and starting over on a whole answer (200) are covered by
// the installer's resume tests; a server that answers from another offset only here.
TEST_F(FileDownloadTest, AnswersOtherThanTheFileOrItsRestWriteNoneOfTheirBody)
{
    scenepackages::put(local("out"), body.left(5000));
    Transfer t = fetch(url("shifted-plain.bin"), local("out"), body.size(), "bytes=5000-");
    ASSERT_TRUE(t.outcome.result) << (t.outcome.failure ? t.outcome.failure->message.toStdString() : "no answer");
    EXPECT_EQ(t.outcome.result->status, 416);
    EXPECT_EQ(QFileInfo(local("out")).size(), 0);

    // An error page is no part of the file; that a long one is cut is the installer's hostile-server test.
    t = fetch(url("missing-file.zip"), local("missing"), 10);
    ASSERT_TRUE(t.outcome.result);
    EXPECT_EQ(t.outcome.result->status, 404);
    EXPECT_FALSE(QFileInfo::exists(local("missing")));
}

// A transfer the network drops keeps its bytes for the resume: the installer's resume tests.
TEST_F(FileDownloadTest, ACancelledTransferFailsKeepingTheBytesWritten)
{
    const Transfer t =
        fetch(url("slow-plain.bin"), local("out"), body.size(), {}, [](FileDownload &d, qint64) { d.cancel(); });
    ASSERT_TRUE(t.outcome.failure);
    EXPECT_EQ(t.outcome.failure->code, QNetworkReply::OperationCanceledError);
    EXPECT_EQ(readFile(local("out")), body.left(QFileInfo(local("out")).size()));
}

}  // namespace
