#include "core/app/SafeText.h"

namespace SafeText {

namespace {

bool isControl(char32_t c) { return c < 0x20 || (c >= 0x7f && c < 0xa0) || c == 0x2028 || c == 0x2029; }

bool isBidiMark(char32_t c) { return c == 0x200e || c == 0x200f || c == 0x061c; }

// Embeddings, overrides and isolates: each changes the order of everything after it until
// its closing control, which the text may not have.
bool isBidiRun(char32_t c) { return (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069); }

bool isLineBreakOrTab(char32_t c) { return (c >= 0x09 && c <= 0x0d) || c == 0x85 || c == 0x2028 || c == 0x2029; }

// Appends `text`'s code points turned into pieces by `piece` until the result would pass
// `maxLength`; then cuts back to the last whole piece that leaves room for "…". Stops reading
// there, so a megabyte costs no more than a short text.
template <typename Piece> QString build(const QString &text, qsizetype maxLength, Piece piece)
{
    const QString ellipsis = QStringLiteral("…");
    QString out;
    qsizetype fits = 0;  // length at the last piece boundary that leaves room for the ellipsis
    QString chunk;
    for (qsizetype i = 0; i < text.size();) {
        char32_t c = text.at(i).unicode();
        qsizetype units = 1;
        if (text.at(i).isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            c = QChar::surrogateToUcs4(text.at(i), text.at(i + 1));
            units = 2;
        }
        chunk.clear();
        piece(c, QStringView(text).mid(i, units), chunk);
        i += units;
        out += chunk;
        if (out.size() <= maxLength - ellipsis.size()) fits = out.size();
        if (out.size() > maxLength) {
            out.truncate(fits);
            return out + ellipsis;
        }
    }
    return out;
}

}  // namespace

QString field(const QString &text, qsizetype maxLength)
{
    bool lastWasSpace = false;
    // Tags often end in a line break; the ends go rather than becoming spaces.
    return build(text.trimmed(), maxLength, [&](char32_t c, QStringView original, QString &out) {
        if (isLineBreakOrTab(c)) {
            // "\r\n" and runs of breaks give one space, as the words were meant to be read.
            if (!lastWasSpace) out += QLatin1Char(' ');
            lastWasSpace = true;
            return;
        }
        lastWasSpace = false;
        if (isControl(c) || isBidiRun(c)) return;
        out += original;
    });
}

QString oneLine(const QString &text, qsizetype maxLength)
{
    return build(text, maxLength, [](char32_t c, QStringView original, QString &out) {
        if (isControl(c) || isBidiMark(c) || isBidiRun(c))
            out += QStringLiteral("\\u{%1}").arg(uint(c), 0, 16);
        else
            out += original;
    });
}

}  // namespace SafeText
