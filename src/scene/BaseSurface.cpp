#include "scene/BaseSurface.h"

#include "render/SwapchainTarget.h"

#include <stdexcept>

BaseSurface::BaseSurface(std::shared_ptr<VulkanContext> ctx, SwapchainTarget *w, QObject *parent)
    : QObject(parent)
    , context(std::move(ctx))
    , window(w)
{
    releaseTimer.setSingleShot(true);
    releaseTimer.setInterval(releaseAfterMs);
    connect(&releaseTimer, &QTimer::timeout, this, [this] { spare.reset(); });
}

BaseSurface::~BaseSurface() = default;

OffscreenTarget *BaseSurface::nextTarget(uint32_t width, uint32_t height)
{
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
    std::swap(shown, spare);
    releaseTimer.start();
    return reshow();
}

bool BaseSurface::reshow()
{
    if (!shown || !window) return false;
    return window->show(*shown->texture(), VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
}

bool BaseSurface::canPresent() const { return window && !window->copyPending(); }

size_t BaseSurface::memoryBytes() const
{
    size_t bytes = 0;
    for (const auto *t : {shown.get(), spare.get()})
        if (t) bytes += size_t(t->texture()->allocatedSize);
    return bytes;
}
