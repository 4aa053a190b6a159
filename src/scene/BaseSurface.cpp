#include "scene/BaseSurface.h"

#include "vulkan/SwapchainTarget.h"

#include <QtConcurrent>
#include <stdexcept>
#include <utility>

BaseSurface::BaseSurface(std::shared_ptr<VulkanContext> ctx, SwapchainTarget *w, QObject *parent)
    : QObject(parent)
    , context(std::move(ctx))
    , window(w)
{
    releaseTimer.setSingleShot(true);
    releaseTimer.setInterval(releaseAfterMs);
    connect(&releaseTimer, &QTimer::timeout, this, [this] { spare.reset(); });
}

BaseSurface::BaseSurface(std::shared_ptr<VulkanContext> ctx, Painter paint, QObject *parent)
    : BaseSurface(std::move(ctx), static_cast<SwapchainTarget *>(nullptr), parent)
{
    painter = std::move(paint);
    connect(&reading, &QFutureWatcher<QImage>::finished, this, [this] {
        if (!std::exchange(readPending, false)) return;
        const QImage pixels = reading.future().resultCount() ? reading.result() : QImage();
        reading.setFuture(QFuture<QImage>());  // its copy of the picture goes
        releaseTimer.start();
        if (!pixels.isNull() && painter(pixels))
            painted = true;
        else if (onPaintFailed)
            onPaintFailed();
    });
}

BaseSurface::~BaseSurface() { reading.waitForFinished(); }

OffscreenTarget *BaseSurface::nextTarget(uint32_t width, uint32_t height)
{
    if (readPending) return nullptr;  // the spare is being read
    if (shown && (shown->width() != width || shown->height() != height)) {
        shown.reset();
        spare.reset();
    }
    if (spare && (spare->width() != width || spare->height() != height)) spare.reset();
    if (!spare) {
        try {
            spare = std::make_unique<OffscreenTarget>(context, width, height);
        } catch (const std::exception &) {
            return nullptr;
        }
    }
    return spare.get();
}

bool BaseSurface::present()
{
    if (!spare) return false;
    if (painter) {
        // The spare stays to render the next base into until the release. The read waits for the
        // device to finish the base: a software device takes a while at a large size.
        if (readPending) return false;
        readPending = true;
        releaseTimer.stop();
        OffscreenTarget *target = spare.get();
        reading.setFuture(QtConcurrent::run([target]() -> QImage {
            try {
                return target->readback();
            } catch (const std::exception &) {
                return {};
            }
        }));
        return true;
    }
    std::swap(shown, spare);
    releaseTimer.start();
    return reshow();
}

bool BaseSurface::reshow()
{
    if (painter) return painted;  // the window system repaints it
    if (!shown || !window) return false;
    return window->show(*shown->texture(), VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
}

bool BaseSurface::canPresent() const { return painter ? !readPending : window && !window->copyPending(); }

size_t BaseSurface::memoryBytes() const
{
    size_t bytes = 0;
    for (const auto *t : {shown.get(), spare.get()})
        if (t) bytes += size_t(t->texture()->allocatedSize);
    return bytes;
}
