#pragma once

#include <QString>

// Text that came from outside (a player's metadata, a file, a server) before it is shown,
// stored or logged. A title may hold line breaks, terminal escapes, bidi overrides or a
// megabyte of anything; none of that may forge a log line, reorder what follows it on screen
// or grow a file without bound.
namespace SafeText {

// How many characters a field from outside keeps, "…" included.
inline constexpr qsizetype fieldLength = 300;

// A name from outside (track title, artist, album) fit to show, compare and store: whitespace
// at the ends goes, line breaks and tabs within become spaces; other control characters (C0,
// DEL, C1) and the bidi embeddings, overrides and isolates go, since their effect would spill
// past the field (the plain marks LRM, RLM and ALM stay: right-to-left titles use them and they
// reach no further); past `maxLength` characters it is cut, ending in "…". Applying it twice
// changes nothing more.
QString field(const QString &text, qsizetype maxLength = fieldLength);

// `text` as one line for a person reading a log: control characters (C0 with line feed and
// ESC, DEL, C1, the line and paragraph separators) and every bidi control are written out as
// "\u{hex}"; past `maxLength` characters it is cut, ending in "…". Never cuts inside an escape or
// a surrogate pair.
QString oneLine(const QString &text, qsizetype maxLength);

}  // namespace SafeText
