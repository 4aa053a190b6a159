#pragma once

#include <QString>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include <ImfRgba.h>

// Writers for the image files of a scene package. Every writer creates missing folders, throws
// PlateWriter::Error with a message naming the file on failure, and produces the same bytes for the
// same pixels (no time stamps).
namespace PlateWriter {

struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Half-float EXR with ZIP compression; `alpha` selects RGBA over RGB. `pixels` holds width × height.
void writeExr(const QString &path, int width, int height, const std::vector<Imf::Rgba> &pixels, bool alpha);

// A full-size plate written band by band, top to bottom, so that a 4K plate never sits in memory whole.
class ExrStream {
public:
    ExrStream(const QString &path, int width, int height, bool alpha);
    ~ExrStream();
    ExrStream(const ExrStream &) = delete;
    ExrStream &operator=(const ExrStream &) = delete;
    // The next `rows` rows, width × rows pixels.
    void writeRows(const Imf::Rgba *pixels, int rows);

private:
    struct File;
    std::unique_ptr<File> file;
    QString path;
    int width = 0, height = 0, written = 0;
};

// 8-bit grey PNG.
void writeGray(const QString &path, int width, int height, const std::vector<uint8_t> &pixels);
// 8-bit RGB PNG, three bytes per pixel.
void writeRgb(const QString &path, int width, int height, const std::vector<uint8_t> &pixels);

}  // namespace PlateWriter
