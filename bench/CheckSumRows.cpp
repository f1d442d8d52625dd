// How fast an update transfer's check sum goes over blocks, next to libraries that sum up alike.

#include <stdexcept>
#include <vector>

#include <isa-l/crc.h>
#include <zlib.h>

#include "bench/BareTransfer.h"
#include "bench/Conversation.h"
#include "bench/Subjects.h"
#include "support/CheckSum.h"
#include "support/CheckSumKernels.h"

namespace
{
const Row Fast = {"check-sum", "check sum of blocks in the cache", "GB/s", {Sense::AtLeast, Of::Value, 9}};
const Row Portable = {"check-sum-portable",
                      "the same where the processor has no instructions for it",
                      "GB/s",
                      {Sense::AtLeast, Of::Value, 2.5}};

constexpr unsigned Block = BareTransfer::BlockSize;
constexpr std::size_t DataSize = 1 << 20; // stays in the processor's cache: the sum is measured, not memory
constexpr int Passes = 64;

/** Folds the data in, block by block and often; the speed and the sum. */
template <class Fold>
double MeasureSpeed(const std::vector<unsigned char>& data, unsigned& sum, Fold fold)
{
    sum = 0;
    const double begin = NowInMicroseconds();
    for (int pass = 0; pass < Passes; ++pass)
        for (std::size_t at = 0; at < data.size(); at += Block)
            sum = fold(sum, data.data() + at);
    return Passes * static_cast<double>(data.size()) / (NowInMicroseconds() - begin) / 1000;
}
} // namespace

void MeasureCheckSums(const Extent& extent, Results& results)
{
    std::vector<unsigned char> data(DataSize);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>(i * 2654435761U >> 13);
    for (int round = 0; round < extent.Rounds(20, 10); ++round) {
        unsigned byZlib = 0, byIsal = 0, portably = 0, ignored = 0;
        const double zlib = MeasureSpeed(data, byZlib, [](unsigned sum, const unsigned char* block) {
            return static_cast<unsigned>(crc32(sum, block, Block));
        });
        const double isal = MeasureSpeed(data, byIsal, [](unsigned sum, const unsigned char* block) {
            return crc32_gzip_refl(sum, block, Block);
        });
        CheckSum own;
        const double fast = MeasureSpeed(data, ignored, [&](unsigned, const unsigned char* block) {
            own.Update(block, Block);
            return 0U;
        });
        const double portable = MeasureSpeed(data, portably, [](unsigned sum, const unsigned char* block) {
            return ~CheckSumKernels::FoldPortable(~sum, block, Block);
        });
        if (own.GetValue() != byZlib || portably != byZlib || byIsal != byZlib)
            throw std::runtime_error("the check sums differ");
        results.Add(Fast, "ISA-L", isal);
        results.Add(Fast, "zlib", zlib);
        results.Add(Fast, Results::Own, fast);
        results.Add(Portable, "zlib", zlib);
        results.Add(Portable, Results::Own, portable);
    }
}
