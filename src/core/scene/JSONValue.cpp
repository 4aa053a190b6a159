#include "core/scene/JSONValue.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>

const JSONValue::Nested &JSONValue::nested() const
{
    static const Nested empty;
    return nestedValue ? *nestedValue : empty;
}

JSONValue JSONValue::fromNumber(double x)
{
    JSONValue v;
    v.kindValue = Kind::number;
    v.numberValue = x;
    return v;
}

JSONValue JSONValue::fromText(const QString &text)
{
    JSONValue v;
    v.kindValue = Kind::text;
    v.textValue = text;
    return v;
}

JSONValue JSONValue::decode(const QJsonValue &json)
{
    JSONValue v;
    if (json.isDouble()) return fromNumber(json.toDouble());
    if (json.isArray()) {
        const QJsonArray array = json.toArray();
        std::vector<double> numbers;
        numbers.reserve(array.size());
        for (const QJsonValue &item : array) {
            if (!item.isDouble()) return v;  // mixed array: other
            numbers.push_back(item.toDouble());
        }
        v.kindValue = Kind::vector;
        v.vectorValue = std::move(numbers);
        return v;
    }
    if (json.isObject()) {
        const QJsonObject object = json.toObject();
        bool allNumbers = true;
        for (auto it = object.begin(); it != object.end() && allNumbers; ++it) allNumbers = it.value().isDouble();
        if (allNumbers) {
            v.kindValue = Kind::object;
            for (auto it = object.begin(); it != object.end(); ++it)
                v.objectValue.emplace(it.key(), it.value().toDouble());
            return v;
        }
        auto nested = std::make_shared<Nested>();
        for (auto it = object.begin(); it != object.end(); ++it) nested->emplace(it.key(), decode(it.value()));
        v.kindValue = Kind::nested;
        v.nestedValue = std::move(nested);
        return v;
    }
    if (json.isString()) return fromText(json.toString());
    return v;
}
