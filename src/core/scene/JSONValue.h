#pragma once

#include <QString>
#include <map>
#include <memory>
#include <variant>
#include <vector>

class QJsonValue;

// A value of a preset's key map. Decoding tries the cases in declaration order and never fails:
// number, vector (array of numbers), object (object of numbers), nested (object of JSONValues),
// text, other (null, Boolean, mixed array).
class JSONValue {
public:
    enum class Kind { number, vector, object, nested, text, other };
    using Object = std::map<QString, double>;
    using Nested = std::map<QString, JSONValue>;

    JSONValue() = default;
    static JSONValue decode(const QJsonValue &json);
    static JSONValue fromNumber(double x);
    static JSONValue fromText(const QString &text);

    Kind kind() const { return kindValue; }
    bool isNumber() const { return kindValue == Kind::number; }
    bool isVector() const { return kindValue == Kind::vector; }
    bool isObject() const { return kindValue == Kind::object; }
    bool isNested() const { return kindValue == Kind::nested; }
    bool isText() const { return kindValue == Kind::text; }

    // Valid only for the matching kind; other kinds give an empty value.
    double number() const { return numberValue; }
    const std::vector<double> &vector() const { return vectorValue; }
    const Object &object() const { return objectValue; }
    const Nested &nested() const;
    const QString &text() const { return textValue; }

private:
    Kind kindValue = Kind::other;
    double numberValue = 0;
    std::vector<double> vectorValue;
    Object objectValue;
    std::shared_ptr<const Nested> nestedValue;  // shared: values are copied freely
    QString textValue;
};
