#include "support/CheckSum.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include "support/CheckSumKernels.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define RUVEL_CARRYLESS __attribute__((target("pclmul,sse4.1")))
#define RUVEL_WIDE __attribute__((target("avx512f,vpclmulqdq,pclmul,sse4.1")))
#endif

namespace
{
constexpr uint32_t Polynomial = 0xEDB88320U; // reflected: the lowest bit is the highest power
constexpr size_t SliceCount = 16;
constexpr size_t CarrylessMinimum = 128; // below this the tables are as fast
constexpr size_t WideMinimum = 1024;     // below this the sums side by side take as long to be put together

using Slices = std::array<std::array<uint32_t, 256>, SliceCount>;

constexpr uint32_t MultiplyByX(uint32_t value)
{
    return (value >> 1) ^ ((value & 1U) != 0 ? Polynomial : 0U);
}

/** Slice n holds what a byte is worth when n more bytes follow it. */
constexpr Slices MakeSlices()
{
    Slices slices{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit)
            value = MultiplyByX(value);
        slices[0][byte] = value;
    }
    for (size_t slice = 1; slice < SliceCount; ++slice) {
        for (size_t byte = 0; byte < 256; ++byte) {
            uint32_t shorter = slices[slice - 1][byte];
            slices[slice][byte] = (shorter >> 8) ^ slices[0][shorter & 0xFFU];
        }
    }
    return slices;
}

constexpr Slices Table = MakeSlices();

/** The product of two values modulo the polynomial. */
constexpr uint32_t Multiply(uint32_t left, uint32_t right)
{
    uint32_t product = 0;
    for (uint32_t power = 0x80000000U; power != 0; power >>= 1) {
        if ((left & power) != 0)
            product ^= right;
        right = MultiplyByX(right);
    }
    return product;
}

using Doublings = std::array<uint32_t, 64>;

/** Entry n is what a value is multiplied by when 2 to the n more bytes follow it. */
constexpr Doublings MakeDoublings()
{
    Doublings doublings{};
    uint32_t power = 0x00800000U; // x to the eighth
    for (uint32_t& entry : doublings) {
        entry = power;
        power = Multiply(power, power);
    }
    return doublings;
}

constexpr Doublings Following = MakeDoublings();

uint32_t LoadLittleEndian(const unsigned char* data)
{
    uint32_t word;
    memcpy(&word, data, sizeof word);
    if constexpr (std::endian::native == std::endian::big)
        word = __builtin_bswap32(word);
    return word;
}

/** What a word is worth when `following` more bytes follow it. */
inline uint32_t Look(uint32_t word, size_t following)
{
    return Table[following + 3][word & 0xFFU] ^ Table[following + 2][(word >> 8) & 0xFFU] ^
           Table[following + 1][(word >> 16) & 0xFFU] ^ Table[following][word >> 24];
}
} // namespace

unsigned int CheckSumKernels::FoldPortable(unsigned int state, const unsigned char* data, size_t length)
{
    for (; length >= SliceCount; data += SliceCount, length -= SliceCount) {
        state = Look(LoadLittleEndian(data) ^ state, 12) ^ Look(LoadLittleEndian(data + 4), 8) ^
                Look(LoadLittleEndian(data + 8), 4) ^ Look(LoadLittleEndian(data + 12), 0);
    }
    for (; length > 0; ++data, --length)
        state = (state >> 8) ^ Table[0][(state ^ *data) & 0xFFU];
    return state;
}

#ifdef RUVEL_CARRYLESS

namespace
{
/** x to the given power modulo the polynomial, shifted to where a reflected product expects it. */
constexpr long long PowerOfX(int power)
{
    uint32_t value = 0x80000000U;
    for (int i = 0; i < power; ++i)
        value = MultiplyByX(value);
    return static_cast<long long>(static_cast<uint64_t>(value) << 1);
}

// Moving 128 bits on by n bits multiplies their two halves by these powers.
struct Distance {
    long long low;
    long long high;
};
constexpr Distance By2048 = {PowerOfX(2048 + 32), PowerOfX(2048 - 32)};
constexpr Distance By512 = {PowerOfX(512 + 32), PowerOfX(512 - 32)};
constexpr Distance By128 = {PowerOfX(128 + 32), PowerOfX(128 - 32)};

RUVEL_CARRYLESS inline __m128i Load(const unsigned char* data)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(data));
}

RUVEL_CARRYLESS inline __m128i MoveOnto(__m128i sum, __m128i distance, __m128i next)
{
    __m128i low = _mm_clmulepi64_si128(sum, distance, 0x00);
    __m128i high = _mm_clmulepi64_si128(sum, distance, 0x11);
    return _mm_xor_si128(_mm_xor_si128(low, high), next);
}
} // namespace

bool CheckSumKernels::HasCarryless()
{
    return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
}

RUVEL_CARRYLESS unsigned int CheckSumKernels::FoldCarryless(unsigned int state, const unsigned char* data,
                                                            size_t length)
{
    if (length < 64)
        return FoldPortable(state, data, length);
    // Four sums side by side, each 64 bytes behind its next: one alone would wait for its own product.
    __m128i sums[4];
    for (size_t i = 0; i < 4; ++i)
        sums[i] = Load(data + 16 * i);
    sums[0] = _mm_xor_si128(sums[0], _mm_cvtsi32_si128(static_cast<int>(state)));
    data += 64;
    length -= 64;
    __m128i distance = _mm_set_epi64x(By512.high, By512.low);
    for (; length >= 64; data += 64, length -= 64) {
        for (size_t i = 0; i < 4; ++i)
            sums[i] = MoveOnto(sums[i], distance, Load(data + 16 * i));
    }
    distance = _mm_set_epi64x(By128.high, By128.low);
    __m128i sum = MoveOnto(sums[0], distance, sums[1]);
    sum = MoveOnto(sum, distance, sums[2]);
    sum = MoveOnto(sum, distance, sums[3]);
    // The sum stands for all bytes before it: folding it in as bytes from state 0 completes the division.
    unsigned char last[16];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(last), sum);
    return FoldPortable(FoldPortable(0, last, sizeof last), data, length);
}

namespace
{
RUVEL_WIDE inline __m512i Broadcast(const Distance& distance)
{
    const auto [low, high] = distance;
    return _mm512_set_epi64(high, low, high, low, high, low, high, low);
}

RUVEL_WIDE inline __m512i MoveFourOnto(__m512i sums, __m512i distance, __m512i next)
{
    constexpr int exclusiveOr = 0x96; // of all three
    __m512i low = _mm512_clmulepi64_epi128(sums, distance, 0x00);
    __m512i high = _mm512_clmulepi64_epi128(sums, distance, 0x11);
    return _mm512_ternarylogic_epi64(low, high, next, exclusiveOr);
}
} // namespace

bool CheckSumKernels::HasWide()
{
    return HasCarryless() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("vpclmulqdq");
}

RUVEL_WIDE unsigned int CheckSumKernels::FoldWide(unsigned int state, const unsigned char* data,
                                                  size_t length)
{
    if (length < 256)
        return FoldCarryless(state, data, length);
    // As above, with four times as many sums.
    __m512i sums[4];
    for (size_t i = 0; i < 4; ++i)
        sums[i] = _mm512_loadu_si512(data + 64 * i);
    sums[0] = _mm512_xor_si512(sums[0], _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(state))));
    data += 256;
    length -= 256;
    __m512i distance = Broadcast(By2048);
    for (; length >= 256; data += 256, length -= 256) {
        for (size_t i = 0; i < 4; ++i)
            sums[i] = MoveFourOnto(sums[i], distance, _mm512_loadu_si512(data + 64 * i));
    }
    distance = Broadcast(By512);
    __m512i sum = MoveFourOnto(sums[0], distance, sums[1]);
    sum = MoveFourOnto(sum, distance, sums[2]);
    sum = MoveFourOnto(sum, distance, sums[3]);
    unsigned char last[64];
    _mm512_storeu_si512(last, sum);
    return FoldCarryless(FoldCarryless(0, last, sizeof last), data, length);
}

#else

bool CheckSumKernels::HasCarryless()
{
    return false;
}

unsigned int CheckSumKernels::FoldCarryless(unsigned int state, const unsigned char* data, size_t length)
{
    return FoldPortable(state, data, length);
}

bool CheckSumKernels::HasWide()
{
    return false;
}

unsigned int CheckSumKernels::FoldWide(unsigned int state, const unsigned char* data, size_t length)
{
    return FoldPortable(state, data, length);
}

#endif

void CheckSum::Append(const CheckSum& following, unsigned long long length)
{
    uint32_t value = GetValue();
    for (size_t bit = 0; length != 0; ++bit, length >>= 1)
        if ((length & 1U) != 0)
            value = Multiply(value, Following[bit]);
    state_ = ~(value ^ following.GetValue());
}

void CheckSum::Update(const void* data, unsigned int length)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    if (length >= WideMinimum && CheckSumKernels::HasWide())
        state_ = CheckSumKernels::FoldWide(state_, bytes, length);
    else if (length >= CarrylessMinimum && CheckSumKernels::HasCarryless())
        state_ = CheckSumKernels::FoldCarryless(state_, bytes, length);
    else
        state_ = CheckSumKernels::FoldPortable(state_, bytes, length);
}
