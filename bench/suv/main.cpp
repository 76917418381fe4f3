// computeSUVBox on a 200 x 200 x 300 phantom against one plain pass over the
// same voxels in the same run, its working memory, and the cost of single
// conversions. Goals: the box within 60 ms and 2 MiB, a conversion within
// 1 µs.
#include "../support/BenchSupport.h"

#include <mdxlib/platform/LmVolume.h>
#include <mdxlib/suv/LmSUVStatistics.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <vector>

namespace {

// Heap bytes in use and their peak, to measure the box's working memory.
std::atomic<long long> sInUse{0};
std::atomic<long long> sPeak{0};

void* track(std::size_t size)
{
    // The size travels in front of the block so that delete can count it.
    auto* block = static_cast<std::size_t*>(std::malloc(size + sizeof(std::max_align_t)));
    if (!block)
        throw std::bad_alloc();
    *block = size;
    long long const now = sInUse += static_cast<long long>(size);
    long long peak = sPeak.load();
    while (now > peak && !sPeak.compare_exchange_weak(peak, now)) {
    }
    return reinterpret_cast<char*>(block) + sizeof(std::max_align_t);
}

void untrack(void* pointer)
{
    if (!pointer)
        return;
    auto* block = reinterpret_cast<std::size_t*>(static_cast<char*>(pointer) - sizeof(std::max_align_t));
    sInUse -= static_cast<long long>(*block);
    std::free(block);
}

HxParamBundle petParams()
{
    HxParamBundle params;
    HxParamBundle* all = params.dicomAllCreate();
    all->setTag(0x0008, 0x0060, "PT");
    all->setTag(0x0010, 0x1030, "70");
    all->setTag(0x0010, 0x1020, "1.75");
    all->setTag(0x0010, 0x0040, "F");
    all->setTag(0x0054, 0x1001, "BQML");
    all->setTag(0x0054, 0x1102, "ADMIN");
    HxParamBundle* item = all->bundle("G0054-0016", true)->bundle("Item0", true);
    item->setTag(0x0018, 0x1074, "3.7e8");
    item->setTag(0x0018, 0x1075, "6586.2");
    return params;
}

// An elliptic body through all slices, with a hot spot and thin arms of
// low uptake, on an empty background.
std::vector<unsigned short> phantom(McVec3i const& d)
{
    std::vector<unsigned short> voxels(static_cast<size_t>(d.x) * d.y * d.z, 0);
    for (int z = 0; z < d.z; ++z)
        for (int y = 0; y < d.y; ++y)
            for (int x = 0; x < d.x; ++x) {
                double const ex = (x - 100.0) / 80.0;
                double const ey = (y - 100.0) / 50.0;
                unsigned short value = 0;
                if (ex * ex + ey * ey <= 1.0)
                    value = static_cast<unsigned short>(1500 + (x * 7 + y * 13 + z * 3) % 500);
                if (((x - 60) * (x - 60) + (y - 90) * (y - 90) + (z - 150) * (z - 150)) < 100)
                    value = 20000;
                voxels[(static_cast<size_t>(z) * d.y + y) * d.x + x] = value;
            }
    return voxels;
}

} // namespace

void* operator new(std::size_t size)
{
    return track(size);
}
void operator delete(void* pointer) noexcept
{
    untrack(pointer);
}
void operator delete(void* pointer, std::size_t) noexcept
{
    untrack(pointer);
}

int main()
{
    McVec3i const dims(200, 200, 300);
    McBox3f const bbox(0, 199 * 2.0f, 0, 199 * 2.0f, 0, 299 * 2.0f);
    std::vector<unsigned short> voxels = phantom(dims);
    int const runs = 9;

    // Anchor: one pass that compares every voxel with the same threshold.
    HxParamBundle anchorParams = petParams();
    LmSUVStatistics::setSUVMode(anchorParams, LmSUVStatistics::SUV_MODE_BODY_WEIGHT);
    float const threshold = LmSUVStatistics::suvToRaw(anchorParams, 0.1f, nullptr);
    volatile size_t sink = 0;
    double const anchor = mdxbench::medianMsec(runs, [&] {
        return mdxbench::timeMsec([&] {
            size_t inside = 0;
            for (unsigned short v : voxels)
                inside += threshold <= static_cast<float>(v) ? 1u : 0u;
            sink = inside;
        });
    });

    McBox3i box;
    long long peakBytes = 0;
    double const boxMs = mdxbench::medianMsec(runs, [&] {
        HxParamBundle params = petParams();
        long long const before = sInUse.load();
        sPeak = before;
        double const ms = mdxbench::timeMsec(
            [&] { box = LmSUVStatistics::computeSUVBox(params, dims, McVec3i(), bbox, voxels.data()); });
        peakBytes = sPeak.load() - before;
        return ms;
    });

    LmVolume volume(petParams());
    LmSUVStatistics::initSUVBundleFromDICOMTags(&volume);
    LmSUVStatistics::setSUVMode(&volume, LmSUVStatistics::SUV_MODE_BODY_WEIGHT, nullptr);
    int const calls = 200000;
    volatile float out = 0.0f;
    double const rawToSuvMs = mdxbench::medianMsec(5, [&] {
        return mdxbench::timeMsec([&] {
            bool ok = false;
            for (int i = 0; i < calls; ++i)
                out = LmSUVStatistics::rawToSuv(&volume, static_cast<float>(i), &ok);
        });
    });
    double const convertMs = mdxbench::medianMsec(5, [&] {
        return mdxbench::timeMsec([&] {
            float result = 0.0f;
            for (int i = 0; i < calls / 20; ++i)
                LmSUVStatistics::convertSUV(&volume, UNIT_BQML, static_cast<float>(i), UNIT_SUV_BW, result);
            out = result;
        });
    });

    std::printf("phantom %d x %d x %d, box x %d..%d y %d..%d z %d..%d\n", dims.x, dims.y, dims.z, box.min[0],
                box.max[0], box.min[1], box.max[1], box.min[2], box.max[2]);
    std::printf("anchor pass        %8.2f ms\n", anchor);
    std::printf("computeSUVBox      %8.2f ms  ratio %.2f x anchor  (goal 60 ms)\n", boxMs, boxMs / anchor);
    std::printf("working memory     %8.2f MiB (goal 2 MiB)\n", static_cast<double>(peakBytes) / (1 << 20));
    double const rawNs = rawToSuvMs * 1e6 / calls;
    double const convertNs = convertMs * 1e6 / (calls / 20);
    double const anchorNsPerVoxel = anchor * 1e6 / static_cast<double>(voxels.size());
    std::printf("rawToSuv           %8.1f ns  ratio %.1f x one anchor voxel  (goal 1000 ns)\n", rawNs,
                rawNs / anchorNsPerVoxel);
    std::printf("convertSUV         %8.1f ns  ratio %.1f x one anchor voxel  (goal 1000 ns)\n", convertNs,
                convertNs / anchorNsPerVoxel);
    return box.isValid() ? 0 : 1;
}
