#include "PlateWriter.h"

#include <QDir>
#include <QFileInfo>
#include <QImage>

#include <ImfHeader.h>
#include <ImfRgbaFile.h>

namespace PlateWriter {

namespace {

void makeParent(const QString &path)
{
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        throw Error(("cannot create the folder of " + path).toStdString());
}

Imf::Header zipHeader(int width, int height)
{
    Imf::Header header(width, height);
    header.compression() = Imf::ZIP_COMPRESSION;
    return header;
}

}  // namespace

void writeExr(const QString &path, int width, int height, const std::vector<Imf::Rgba> &pixels, bool alpha)
{
    ExrStream stream(path, width, height, alpha);
    stream.writeRows(pixels.data(), height);
}

struct ExrStream::File {
    Imf::RgbaOutputFile out;
    File(const char *name, const Imf::Header &header, Imf::RgbaChannels channels)
        : out(name, header, channels)
    {
    }
};

ExrStream::ExrStream(const QString &path, int width, int height, bool alpha)
    : path(path)
    , width(width)
    , height(height)
{
    makeParent(path);
    try {
        file = std::make_unique<File>(QFile::encodeName(path).constData(), zipHeader(width, height),
                                      alpha ? Imf::WRITE_RGBA : Imf::WRITE_RGB);
    } catch (const std::exception &e) {
        throw Error((path + ": " + QString::fromUtf8(e.what())).toStdString());
    }
}

ExrStream::~ExrStream() = default;

void ExrStream::writeRows(const Imf::Rgba *pixels, int rows)
{
    if (rows <= 0) return;
    if (written + rows > height) throw Error((path + ": more rows than the image holds").toStdString());
    try {
        // The frame buffer is addressed in image rows; shift the base so row `written` is the first.
        file->out.setFrameBuffer(pixels - static_cast<ptrdiff_t>(written) * width, 1, width);
        file->out.writePixels(rows);
    } catch (const std::exception &e) {
        throw Error((path + ": " + QString::fromUtf8(e.what())).toStdString());
    }
    written += rows;
}

void writeGray(const QString &path, int width, int height, const std::vector<uint8_t> &pixels)
{
    makeParent(path);
    QImage image(width, height, QImage::Format_Grayscale8);
    for (int y = 0; y < height; ++y)
        std::copy_n(pixels.data() + static_cast<size_t>(y) * width, width, image.scanLine(y));
    if (!image.save(path, "PNG")) throw Error(("cannot write " + path).toStdString());
}

void writeRgb(const QString &path, int width, int height, const std::vector<uint8_t> &pixels)
{
    makeParent(path);
    QImage image(width, height, QImage::Format_RGB888);
    for (int y = 0; y < height; ++y)
        std::copy_n(pixels.data() + static_cast<size_t>(y) * width * 3, width * 3, image.scanLine(y));
    if (!image.save(path, "PNG")) throw Error(("cannot write " + path).toStdString());
}

}  // namespace PlateWriter
