// GPU cost of the composite pass and of pre-mix builds, and the light-texture memory per preset
// against the 4-bytes-per-pixel floor. Synthetic plates; runs on whatever Vulkan device the
// loader offers (set VK_ICD_FILENAMES to choose).

#include "core/scene/PlateImages.h"
#include "render/MixBuilder.h"
#include "render/SceneRenderer.h"
#include "vulkan/TextureUpload.h"

#include <ImfRgbaFile.h>
#include <QDir>
#include <QFile>
#include <QFloat16>
#include <QGuiApplication>
#include <QTemporaryDir>
#include <benchmark/benchmark.h>
#include <cstring>

namespace {

SceneRenderer *renderer()
{
    static std::unique_ptr<SceneRenderer> r = SceneRenderer::create();
    return r.get();
}

TextureRef lightTexture(int w, int h)
{
    HalfImage img;
    img.width = w;
    img.height = h;
    img.pixels.resize(size_t(w) * h * 4);
    for (size_t i = 0; i < size_t(w) * h; ++i) {
        qfloat16 v(float(i % 997) / 997.0f);
        uint16_t bits;
        std::memcpy(&bits, &v, 2);
        for (int c = 0; c < 4; ++c) img.pixels[i * 4 + c] = bits;
    }
    return TextureUpload::half(*renderer()->vulkan(), img);
}

// Composite GPU time per frame; range(0) = width, range(1) = height, range(2) = percent of the
// frame area drawn (100 = base image, 25 = an animated layer).
void BM_Composite(benchmark::State &state)
{
    SceneRenderer *r = renderer();
    if (!r) {
        state.SkipWithError("no Vulkan renderer");
        return;
    }
    const int w = int(state.range(0)), h = int(state.range(1)), pct = int(state.range(2));
    const double side = std::sqrt(pct / 100.0);
    const int tw = std::max(1, int(w * side)), th = std::max(1, int(h * side));
    SceneTextures t;
    t.mixes[0] = t.mixes[1] = lightTexture(w, h);
    SceneUniforms u;
    u.plateSize = {float(w), float(h), 1.0f / w, 1.0f / h};
    u.look = {0.2f, 1.1f, 0.01f, 0};
    u.tone = {1, 0.5f, 4, 0};
    u.mixCount = 2;
    u.mixWeights = {0.6f, 0.4f, 0, 0};
    u.rain = {3, 0.7f, 0.3f, 0};
    OffscreenTarget target(r->vulkan(), uint32_t(tw), uint32_t(th));
    r->waitIdle();
    r->gpuClock().take();
    for (auto _ : state) {
        r->draw(std::nullopt, {{&target, u}}, std::nullopt, t);
        r->waitIdle();
    }
    const auto [seconds, count] = r->gpuClock().take();
    state.counters["gpu_ms"] = count ? seconds / double(count) * 1000 : 0;
}
BENCHMARK(BM_Composite)
    ->Args({1920, 1080, 100})
    ->Args({1920, 1080, 25})
    ->Args({3840, 2160, 100})
    ->Args({3840, 2160, 25})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);

// One preset of 8 plates built at plate size; reports its memory against 4 bytes per pixel.
void BM_PremixBuild(benchmark::State &state)
{
    SceneRenderer *r = renderer();
    if (!r) {
        state.SkipWithError("no Vulkan renderer");
        return;
    }
    const int w = int(state.range(0)), h = int(state.range(1));
    QTemporaryDir dir;
    std::vector<Imf::Rgba> px(size_t(w) * h, Imf::Rgba(0.3f, 0.2f, 0.1f, 1));
    std::vector<MixBuilder::Term> terms;
    for (int i = 0; i < 8; ++i) {
        const QString name = QStringLiteral("plate%1").arg(i);
        Imf::RgbaOutputFile file(QFile::encodeName(dir.filePath(name + ".exr")).constData(), w, h, Imf::WRITE_RGBA, 1,
                                 Imath::V2f(0, 0), 1, Imf::INCREASING_Y, Imf::ZIP_COMPRESSION);
        file.setFrameBuffer(px.data(), 1, size_t(w));
        file.writePixels(h);
        terms.push_back({name, {0.5, 0.5, 0.5}, false});
    }
    size_t bytes = 0;
    for (auto _ : state) {
        TextureRef t = r->mixBuilder()->build(terms, dir.path(), w, h, r->lightFormat());
        bytes = size_t(t->allocatedSize);
    }
    state.counters["MB_per_preset"] = double(bytes) / 1048576.0;
    state.counters["ratio_to_4Bpp_floor"] = double(bytes) / (double(w) * h * 4);
}
BENCHMARK(BM_PremixBuild)->Args({1920, 1080})->Args({3840, 2160})->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
