#include "core/app/Settings.h"
#include "core/environment/WeatherService.h"
#include "LoopbackHttp.h"
#include "TestSupport.h"

#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <optional>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

// Bodies as Open-Meteo sends them for "current=precipitation,rain,weather_code".
QByteArray forecast(const char *precipitation, const char *rain, const char *code)
{
    return QByteArray(R"({"latitude":-23.5,"longitude":-46.625,"generationtime_ms":0.03,"utc_offset_seconds":0,)"
                      R"("timezone":"GMT","elevation":760.0,"current_units":{"time":"iso8601","rain":"mm"},)"
                      R"("current":{"time":"2024-03-14T18:45","interval":900,"precipitation":)") +
           precipitation + R"(,"rain":)" + rain + R"(,"weather_code":)" + code + "}}";
}

using Now = WeatherService::Now;

struct WeatherServiceTest : ::testing::Test {
    LogTail log;
    QTemporaryDir dir;
    Settings settings{dir.filePath("turnelo.json")};
    LoopbackHttp server;
    std::deque<QByteArray> replies;              // each request takes the next
    std::optional<LoopbackHttp::Reply> hostile;  // answers every request while set
    WeatherService service{settings};
    double clockNow = 1000;
    std::vector<Now> changes;

    void SetUp() override
    {
        server.answer = [this](const QString &) {
            if (hostile) return *hostile;
            if (replies.empty()) return LoopbackHttp::Reply{R"({"error":true,"reason":"the test queued no reply"})"};
            const QByteArray body = replies.front();
            replies.pop_front();
            return LoopbackHttp::Reply{body};
        };
        settings.setValue("weatherServiceURL", server.url("/"));
        service.setClock([this] { return clockNow; });
        service.onChange = [this](const Now &now) { changes.push_back(now); };
    }

    // Asks for fresh data and waits for the answer to be handled. Qt's network layer tries a
    // connection closed before any answer once more: a dropped connection counts twice.
    void fetch(int requests = 1)
    {
        const auto before = server.targets.size();
        service.refreshIfStale();
        ASSERT_TRUE(service.fetching());
        ASSERT_TRUE(waitUntil([&] { return !service.fetching(); }, 10s));
        ASSERT_EQ(server.targets.size(), before + requests);
    }

    // Gives any request that the service might have started time to reach the server.
    void settle() { spin(100ms); }
    // Waits for the service to have asked `count` times in all and handled the answer.
    bool answered(int count)
    {
        return waitUntil([&] { return server.targets.size() == count && !service.fetching(); }, 10s);
    }
};

}  // namespace

TEST_F(WeatherServiceTest, RainDecisionAndIntensityFollowTheAnswer)
{
    // Each answer differs from the one before, so every row is a real change.
    const std::pair<QByteArray, Now> cases[] = {
        {forecast("10.0", "10.0", "95"), {true, 1.0}},
        {forecast("0.05", "0.05", "3"), {false, 0.0}},
        {forecast("0.06", "0.06", "3"), {true, 0.25}},
        {forecast("9.0", "0.0", "71"), {false, 0.0}},  // snow: "rain" first
        {forecast("0.0", "0.0", "61"), {true, 0.25}},
        {forecast("2.0", "2.0", "81"), {true, 0.5}},
        // Without "rain", "precipitation" stands in.
        {R"({"current":{"precipitation":3.0,"weather_code":0}})", {true, 0.75}},
    };
    std::vector<Now> expected;
    for (const auto &[body, now] : cases) {
        SCOPED_TRACE(body.toStdString());
        replies.push_back(body);
        ASSERT_NO_FATAL_FAILURE(fetch());
        EXPECT_EQ(service.now(), now);
        expected.push_back(now);
        clockNow += 900;
    }
    EXPECT_EQ(changes, expected);
}

TEST_F(WeatherServiceTest, AsksForTheCityOrTheCoordinateOverrideOnceAtEachChange)
{
    const std::function<void()> refresh = [&] { service.refreshIfStale(); };
    // Each change is fetched at once, without waiting out the 900 s.
    const std::tuple<std::function<void()>, QString, QString> steps[] = {
        {refresh, "latitude=-23.5505&longitude=-46.6333", "São Paulo"},
        {[&] { settings.setWeatherCity("berlin"); }, "latitude=52.52&longitude=13.405", "Berlin"},
        // Both coordinates are written: one request, for the pair.
        {[&] { settings.setWeatherCoordinates(-8.5, 115.25); }, "latitude=-8.5&longitude=115.25", "-8.5, 115.25"},
    };
    int requests = 0;
    for (const auto &[change, coordinates, place] : steps) {
        SCOPED_TRACE(coordinates.toStdString());
        replies.push_back(forecast("0", "0", "0"));
        change();
        ASSERT_TRUE(answered(++requests));
        settle();
        EXPECT_EQ(server.targets.size(), requests);
        EXPECT_EQ(server.targets.last(), "/v1/forecast?" + coordinates + "&current=precipitation,rain,weather_code");
        EXPECT_TRUE(log.last().contains("Clima " + place + ": ")) << log.last().toStdString();
    }
}

TEST_F(WeatherServiceTest, OneRequestInFlightNoneWithin900SecondsFailuresRetriedAfter300)
{
    replies.push_back(forecast("1.0", "1.0", "61"));
    service.refreshIfStale();
    service.refreshIfStale();
    ASSERT_TRUE(waitUntil([&] { return !service.fetching(); }, 10s));
    clockNow += 899;
    service.refreshIfStale();
    settle();
    EXPECT_EQ(server.targets.size(), 1);

    clockNow += 1;  // the same weather again: no change
    replies.push_back(forecast("1.0", "1.0", "61"));
    ASSERT_NO_FATAL_FAILURE(fetch());
    EXPECT_EQ(changes.size(), 1u);
    ASSERT_EQ(service.now(), (Now{true, 0.25}));

    // Failures keep the state and are retried after 300 s. Answers that never end, or end too
    // late, cost a bounded amount of memory and time.
    service.setTimeout(400);
    const std::vector<std::pair<LoopbackHttp::Reply, QString>> failures{
        {{R"({"current":{"rain":)"}, "Clima: falhou (JSON ilegível no byte 19)"},
        {{R"({"error":true,"reason":"Latitude must be in range"})"},
         "Clima: falhou (resposta sem o bloco \"current\")"},
        {{QByteArray()}, "Clima: falhou (conexão encerrada pelo servidor)"},
        {{"{", 200, 0, -1, 64 * 1024}, "Clima: falhou (resposta passou de 262144 bytes)"},
        {{"{", 200, 0, -1, 1, 50}, "Clima: falhou (passou do prazo de 0.8 s)"},
    };
    clockNow += 600;
    for (const auto &[reply, line] : failures) {
        SCOPED_TRACE(line.toStdString());
        clockNow += 300;  // 900 s after the answer, then 300 s after each failure
        hostile = reply;
        server.sent = 0;
        ASSERT_NO_FATAL_FAILURE(fetch(reply.body.isNull() ? 2 : 1));
        EXPECT_LT(server.sent, 16 << 20);
        EXPECT_TRUE(log.last().endsWith(" " + line)) << log.last().toStdString();
        EXPECT_EQ(service.now(), (Now{true, 0.25}));
    }
    hostile.reset();
    clockNow += 299;
    service.refreshIfStale();
    EXPECT_FALSE(service.fetching()) << "retried before 300 s";
    clockNow += 1;
    replies.push_back(forecast("1.0", "1.0", "61"));
    ASSERT_NO_FATAL_FAILURE(fetch());
    // Woken from sleep: the steady clock says no time passed, the weather is asked anew.
    service.refreshIfStale();
    EXPECT_FALSE(service.fetching());
    replies.push_back(forecast("1.0", "1.0", "61"));
    service.woke();
    ASSERT_NO_FATAL_FAILURE(fetch(1));
    EXPECT_EQ(changes.size(), 1u);
}

TEST_F(WeatherServiceTest, AnswerForAPlaceLeftWhileInFlightIsDroppedAndTheNewPlaceAsked)
{
    replies.push_back(forecast("8.0", "8.0", "65"));  // São Paulo, arriving after the change
    replies.push_back(forecast("0.0", "0.0", "1"));   // Tokyo
    service.refreshIfStale();
    ASSERT_TRUE(service.fetching());
    settings.setWeatherCity("tokyo");
    ASSERT_TRUE(answered(2));
    EXPECT_TRUE(server.targets[0].contains("?latitude=-23.5505&"));
    EXPECT_TRUE(server.targets[1].contains("?latitude=35.6762&longitude=139.6503&"));
    EXPECT_TRUE(changes.empty());
    EXPECT_EQ(service.now(), (Now{false, 0.0}));
}
