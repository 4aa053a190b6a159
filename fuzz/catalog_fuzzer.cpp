// The content service's catalog: parsed, its choices for this version made, each entry written
// back as the installed-scene record and read again.
#include "FuzzSupport.h"

#include "core/delivery/SceneCatalog.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzSupport::init();
    try {
        const SceneCatalog catalog =
            SceneCatalog::parse(QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size)));
        for (const QString &version : {QStringLiteral("0.1.0"), QStringLiteral("99")}) {
            if (const auto base = catalog.pick(version)) catalog.framings(*base, version);
        }
        for (const SceneCatalog::Entry &e : catalog.scenes) {
            SceneCatalog::compare(e.minAppVersion.value_or(QString()), e.title);
            // What is written must read back as the same entry.
            if (!(SceneCatalog::Entry::fromJson(e.toJson()) == e)) std::abort();
        }
        if (!(SceneCatalog::parse(catalog.serialize()) == catalog)) std::abort();
    } catch (const DeliveryError &) {
    }
    return 0;
}
