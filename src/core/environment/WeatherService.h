#pragma once

#include <QObject>
#include <QString>
#include <functional>
#include <optional>
#include <vector>

class QNetworkAccessManager;
class QNetworkReply;
class Settings;

// Live weather at the chosen place from the Open-Meteo forecast service, reduced to "is it
// raining, and how hard". Fetches at most every 900 s; a failed fetch is retried 300 s later.
// Nothing runs by itself: callers (the scene's clock tick, effect and city changes) ask through
// refreshIfStale(), except that a change of city or coordinates fetches at once.
//
// Main thread only. The request runs on Qt's network machinery; its answer is handled on the
// main thread, where `now` changes and `onChange` is called.
class WeatherService : public QObject {
    Q_OBJECT
public:
    struct Now {
        bool raining = false;
        double intensity = 0;  // 0 when dry, 0.25…1 when raining
        bool operator==(const Now &) const = default;
    };

    struct City {
        QString id;
        double latitude = 0;
        double longitude = 0;
        QString name() const;  // display name, from the id
    };

    // The "current" block of a forecast answer: rain in mm over the last hour, WMO weather code.
    struct Reading {
        double rain = 0;
        qint64 code = 0;
        bool raining() const;
        Now now() const;
    };
    static constexpr qint64 maxAnswerBytes = 256 * 1024;

    // Reads an answer's body; nothing, with the reason for the log in `error`, when it cannot.
    static std::optional<Reading> readAnswer(const QByteArray &body, QString &error);

    // Monotonic seconds; only differences matter.
    using Clock = std::function<double()>;

    // `settings` must outlive the service. A null `network` makes the service own one.
    explicit WeatherService(Settings &settings, QNetworkAccessManager *network = nullptr, QObject *parent = nullptr);
    ~WeatherService() override;

    // The built-in cities, in menu order.
    static const std::vector<City> &cities();
    // The city named by "weatherCity"; an unknown id gives São Paulo.
    static City city(const Settings &settings);

    // Starts a fetch when the data is stale and none is in flight; returns at once.
    void refreshIfStale();
    // The machine or its screens woke: the steady clock stood still while asleep, so the data
    // may be hours old whatever it says. Fetches now unless a fetch is in flight.
    void woke();

    Now now() const { return current; }
    bool fetching() const { return inFlight != nullptr; }

    // Called with the new state whenever `now` really changes.
    std::function<void(const Now &)> onChange;

    // For tests: the time source (default: a steady clock) and the request's transfer timeout.
    void setClock(Clock clock);
    void setTimeout(int milliseconds);

private:
    struct Place {
        double latitude = 0;
        double longitude = 0;
        QString label;  // for the log: the city's name or the coordinates
        bool operator==(const Place &) const = default;
    };
    Place place() const;
    void settingChanged(const QString &key);
    void placeChanged();
    void finished(QNetworkReply *reply, const Place &asked);
    void publish(const Now &next);

    Settings &settings;
    QNetworkAccessManager *network;
    Clock clock;
    int timeoutMs = 30000;
    Now current;
    std::optional<double> lastFetch;  // absent = the distant past
    QNetworkReply *inFlight = nullptr;
    bool placeChangePending = false;
};
