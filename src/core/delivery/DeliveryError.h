#pragma once

#include "core/app/KindedError.h"

enum class DeliveryErrorKind {
    catalog,  // the catalog (or a record written from it) does not read as one
    package,  // the package is refused: its archive, its entries or its claimed size
    disk,     // reading, writing or moving the installed room failed, or a checksum did not match
};

// The delivery layer's one error: why a catalog, a package or a move on disk was refused.
struct DeliveryError : KindedError<DeliveryErrorKind> {
    using KindedError::KindedError;
};
