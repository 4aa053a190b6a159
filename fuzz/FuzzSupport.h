#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// What every fuzz entry point shares: one QCoreApplication for the process, a scratch folder
// that also holds the log, settings and data folders (so nothing of the user's is touched), and
// a reader that turns the input into structured values.
namespace FuzzSupport {

// Creates the application and the scratch folder on the first call; cheap afterwards.
void init();
// The scratch folder, empty of anything the previous input left behind.
QString scratch();
// Writes `data` to a file of that name in the scratch folder and returns its path.
QString writeScratch(const QString &name, const uint8_t *data, size_t size);

// Consumes the input front to back; past its end every read gives zero or empty.
class Reader {
public:
    Reader(const uint8_t *data, size_t size)
        : p(data)
        , left(size)
    {
    }
    bool done() const { return left == 0; }
    uint8_t byte();
    quint32 u32();
    double real();   // any bit pattern: NaN, infinities and subnormals included
    QString text();  // up to 64 bytes as UTF-8, length first
    // One of `choices`, or a free text when the byte falls past them.
    QString oneOf(const QStringList &choices);
    // A value of the kinds D-Bus and Apple events hand over: texts, integers of both widths,
    // reals, Booleans, text lists, nested maps, and values wrapped in QDBusVariant.
    QVariant value(const QStringList &keys, int depth = 0);

private:
    const uint8_t *p;
    size_t left;
};

}  // namespace FuzzSupport
