#include "core/environment/WeatherService.h"
#include "core/network/TransferGuard.h"

#include "core/app/Log.h"
#include "core/app/Settings.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>
#include <algorithm>
#include <chrono>
#include <cmath>

namespace {

constexpr double staleAfter = 900;  // seconds between successful fetches
constexpr double retryAfter = 300;  // seconds after a failed one
constexpr double failureBackdate = staleAfter - retryAfter;

// Shortest text that reads back as the same double, never in exponent form (the query and the
// log both want plain decimals).
QString decimal(double x) { return QString::number(x, 'f', QLocale::FloatingPointShortest); }

}  // namespace

std::optional<WeatherService::Reading> WeatherService::readAnswer(const QByteArray &body, QString &error)
{
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        error = QStringLiteral("JSON ilegível no byte %1").arg(parseError.offset);
        return std::nullopt;
    }
    const QJsonValue current = doc.object().value(QStringLiteral("current"));
    if (!current.isObject()) {
        error = QStringLiteral("resposta sem o bloco \"current\"");
        return std::nullopt;
    }
    const QJsonObject object = current.toObject();
    Reading reading;
    const QJsonValue rain = object.value(QStringLiteral("rain"));
    const QJsonValue precipitation = object.value(QStringLiteral("precipitation"));
    if (rain.isDouble())
        reading.rain = rain.toDouble();
    else if (precipitation.isDouble())
        reading.rain = precipitation.toDouble();
    const QJsonValue code = object.value(QStringLiteral("weather_code"));
    if (code.isDouble()) {
        const double c = code.toDouble();
        if (std::isfinite(c) && c == std::floor(c) && std::abs(c) < 1e15) reading.code = qint64(c);
    }
    return reading;
}

namespace {

// The log is Portuguese; Qt's own error texts are English.
QString transferError(const QNetworkReply &reply)
{
    const int status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status >= 400) return QStringLiteral("HTTP %1").arg(status);
    switch (reply.error()) {
    case QNetworkReply::ConnectionRefusedError:
        return QStringLiteral("conexão recusada");
    case QNetworkReply::RemoteHostClosedError:
        return QStringLiteral("conexão encerrada pelo servidor");
    case QNetworkReply::HostNotFoundError:
        return QStringLiteral("servidor não encontrado");
    // The transfer timeout ends a reply as cancelled; nothing else cancels one that is still heard.
    case QNetworkReply::OperationCanceledError:
    case QNetworkReply::TimeoutError:
        return QStringLiteral("tempo esgotado");
    case QNetworkReply::SslHandshakeFailedError:
        return QStringLiteral("falha no TLS");
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
        return QStringLiteral("sem rede");
    default:
        return QStringLiteral("erro de rede %1").arg(int(reply.error()));
    }
}

}  // namespace

bool WeatherService::Reading::raining() const
{
    // Drizzle and rain (51–67), rain showers (80–82), thunderstorms (95–99); anything else only
    // counts when there is measurable rain.
    return rain > 0.05 || (code >= 51 && code <= 67) || (code >= 80 && code <= 82) || code > 94;
}

WeatherService::Now WeatherService::Reading::now() const
{
    const bool wet = raining();
    return Now{wet, wet ? std::min(std::max(rain * 0.25, 0.25), 1.0) : 0.0};
}

QString WeatherService::City::name() const
{
    static const std::vector<std::pair<QString, QString>> names{
        {QStringLiteral("sao-paulo"), QStringLiteral("São Paulo")},
        {QStringLiteral("rio"), QStringLiteral("Rio de Janeiro")},
        {QStringLiteral("belo-horizonte"), QStringLiteral("Belo Horizonte")},
        {QStringLiteral("brasilia"), QStringLiteral("Brasília")},
        {QStringLiteral("curitiba"), QStringLiteral("Curitiba")},
        {QStringLiteral("porto-alegre"), QStringLiteral("Porto Alegre")},
        {QStringLiteral("salvador"), QStringLiteral("Salvador")},
        {QStringLiteral("recife"), QStringLiteral("Recife")},
        {QStringLiteral("lisboa"), QStringLiteral("Lisbon")},
        {QStringLiteral("porto"), QStringLiteral("Porto")},
        {QStringLiteral("new-york"), QStringLiteral("New York")},
        {QStringLiteral("san-francisco"), QStringLiteral("San Francisco")},
        {QStringLiteral("london"), QStringLiteral("London")},
        {QStringLiteral("paris"), QStringLiteral("Paris")},
        {QStringLiteral("berlin"), QStringLiteral("Berlin")},
        {QStringLiteral("tokyo"), QStringLiteral("Tokyo")},
    };
    for (const auto &[key, name] : names)
        if (key == id) return name;
    return id;
}

const std::vector<WeatherService::City> &WeatherService::cities()
{
    static const std::vector<City> list{
        {QStringLiteral("sao-paulo"), -23.5505, -46.6333},
        {QStringLiteral("rio"), -22.9068, -43.1729},
        {QStringLiteral("belo-horizonte"), -19.9167, -43.9345},
        {QStringLiteral("brasilia"), -15.7939, -47.8828},
        {QStringLiteral("curitiba"), -25.4284, -49.2733},
        {QStringLiteral("porto-alegre"), -30.0346, -51.2177},
        {QStringLiteral("salvador"), -12.9777, -38.5016},
        {QStringLiteral("recife"), -8.0476, -34.877},
        {QStringLiteral("lisboa"), 38.7223, -9.1393},
        {QStringLiteral("porto"), 41.1579, -8.6291},
        {QStringLiteral("new-york"), 40.7128, -74.006},
        {QStringLiteral("san-francisco"), 37.7749, -122.4194},
        {QStringLiteral("london"), 51.5072, -0.1276},
        {QStringLiteral("paris"), 48.8566, 2.3522},
        {QStringLiteral("berlin"), 52.52, 13.405},
        {QStringLiteral("tokyo"), 35.6762, 139.6503},
    };
    return list;
}

WeatherService::City WeatherService::city(const Settings &settings)
{
    const QString id = settings.weatherCity();
    for (const City &c : cities())
        if (c.id == id) return c;
    // An unknown id keeps its name but takes São Paulo's coordinates.
    City fallback = cities().front();
    fallback.id = id;
    return fallback;
}

WeatherService::WeatherService(Settings &settings, QNetworkAccessManager *network, QObject *parent)
    : QObject(parent)
    , settings(settings)
    , network(network ? network : new QNetworkAccessManager(this))
{
    clock = [] {
        using namespace std::chrono;
        return duration<double>(steady_clock::now().time_since_epoch()).count();
    };
    connect(&settings, &Settings::changed, this, &WeatherService::settingChanged);
}

WeatherService::~WeatherService()
{
    if (inFlight) {
        inFlight->disconnect(this);
        inFlight->abort();
        inFlight->deleteLater();
    }
}

void WeatherService::setClock(Clock c) { clock = std::move(c); }
void WeatherService::setTimeout(int milliseconds) { timeoutMs = milliseconds; }

WeatherService::Place WeatherService::place() const
{
    const auto latitude = settings.weatherLatitude();
    const auto longitude = settings.weatherLongitude();
    if (latitude && longitude)
        return {*latitude, *longitude, decimal(*latitude) + QStringLiteral(", ") + decimal(*longitude)};
    const City c = city(settings);
    return {c.latitude, c.longitude, c.name()};
}

void WeatherService::settingChanged(const QString &key)
{
    if (key != QLatin1String("weatherCity") && key != QLatin1String("weatherLatitude") &&
        key != QLatin1String("weatherLongitude"))
        return;
    // Coordinates are written as two keys in a row: act once, after both.
    if (placeChangePending) return;
    placeChangePending = true;
    QTimer::singleShot(0, this, &WeatherService::placeChanged);
}

void WeatherService::placeChanged()
{
    placeChangePending = false;
    lastFetch.reset();
    refreshIfStale();
}

void WeatherService::woke()
{
    if (!inFlight) lastFetch.reset();
    refreshIfStale();
}

void WeatherService::refreshIfStale()
{
    if (const auto debug = settings.debugWeather()) {
        publish(*debug == QLatin1String("rain") ? Now{true, 0.7} : Now{false, 0});
        return;
    }
    if (inFlight) return;
    if (lastFetch && clock() - *lastFetch < staleAfter) return;

    const Place asked = place();
    QString base = settings.weatherServiceURL();
    if (!base.endsWith(QLatin1Char('/'))) base += QLatin1Char('/');
    const QUrl url(base + QStringLiteral("v1/forecast?latitude=") + decimal(asked.latitude) +
                   QStringLiteral("&longitude=") + decimal(asked.longitude) +
                   QStringLiteral("&current=precipitation,rain,weather_code"));
    QNetworkRequest request(url);
    TransferGuard::prepare(request);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    inFlight = network->get(request);
    QNetworkReply *reply = inFlight;
    // An answer is a few hundred bytes; a server that sends more, or takes long, is not answering.
    TransferGuard::collect(reply, {.maxBytes = maxAnswerBytes, .idleMs = timeoutMs, .deadlineMs = 2 * timeoutMs});
    connect(reply, &QNetworkReply::finished, this, [this, reply, asked] { finished(reply, asked); });
}

void WeatherService::finished(QNetworkReply *reply, const Place &asked)
{
    reply->deleteLater();
    inFlight = nullptr;

    QString error;
    std::optional<Reading> reading;
    if (const QString cut = TransferGuard::failureOf(reply); !cut.isEmpty())
        error = cut;
    else if (reply->error() != QNetworkReply::NoError)
        error = transferError(*reply);
    else
        reading = readAnswer(TransferGuard::bodyOf(reply), error);

    if (!reading) {
        Log::write(QStringLiteral("Clima: falhou (") + error + QLatin1Char(')'));
        lastFetch = clock() - failureBackdate;
    } else {
        const Now next = reading->now();
        Log::write(QStringLiteral("Clima ") + asked.label + QStringLiteral(": código ") +
                   QString::number(reading->code) + QStringLiteral(", chuva ") + decimal(reading->rain) +
                   QStringLiteral(" mm/h → ") + (next.raining ? QStringLiteral("chovendo") : QStringLiteral("seco")));
        lastFetch = clock();
        // An answer for a place that is no longer chosen is not shown; the new place is asked.
        if (asked == place()) publish(next);
    }

    if (!(asked == place())) {
        lastFetch.reset();
        refreshIfStale();
    }
}

void WeatherService::publish(const Now &next)
{
    if (next == current) return;
    current = next;
    if (onChange) onChange(current);
}
