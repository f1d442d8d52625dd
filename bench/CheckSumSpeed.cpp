// How fast an update transfer's check sum goes over blocks, next to zlib's sum of the same kind.

#include <cstdio>
#include <vector>

#include <zlib.h>

#include "bench/BareTransfer.h"
#include "bench/Conversation.h"
#include "bench/Figures.h"
#include "support/CheckSum.h"
#include "support/CheckSumKernels.h"

namespace
{
constexpr int Rounds = 20;
constexpr unsigned Block = BareTransfer::BlockSize;
constexpr std::size_t DataSize = 1 << 20; // stays in the processor's cache: the sum is measured, not memory
constexpr int Passes = 64;

/** Folds the data in, block by block and often, and notes the speed; the sum. */
template <class Fold>
unsigned AddRound(Figures& figures, const std::vector<unsigned char>& data, Fold fold)
{
    figures.BeginRound();
    unsigned sum = 0;
    const double begin = NowInMicroseconds();
    for (int pass = 0; pass < Passes; ++pass)
        for (std::size_t at = 0; at < data.size(); at += Block)
            sum = fold(sum, data.data() + at);
    const double bytes = static_cast<double>(Passes) * static_cast<double>(data.size());
    figures.Add(bytes / (NowInMicroseconds() - begin) / 1000);
    return sum;
}
} // namespace

int main()
{
    std::vector<unsigned char> data(DataSize);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>(i * 2654435761U >> 13);
    Figures byZlib, byCheckSum, portably;
    for (int round = 0; round < Rounds; ++round) {
        const unsigned expected = AddRound(byZlib, data, [](unsigned sum, const unsigned char* block) {
            return static_cast<unsigned>(crc32(sum, block, Block));
        });
        CheckSum checkSum;
        AddRound(byCheckSum, data, [&](unsigned, const unsigned char* block) {
            checkSum.Update(block, Block);
            return 0U;
        });
        const unsigned portable = AddRound(portably, data, [](unsigned sum, const unsigned char* block) {
            return ~CheckSumKernels::FoldPortable(~sum, block, Block);
        });
        if (checkSum.GetValue() != expected || portable != expected) {
            std::fprintf(stderr, "CheckSumSpeed: the sums differ\n");
            return 1;
        }
    }
    PrintTable("GB/s over blocks of " + std::to_string(Block) + " bytes",
               {{"zlib's crc32", byZlib}, {"CheckSum", byCheckSum}, {"CheckSum's portable path", portably}});
    return 0;
}
