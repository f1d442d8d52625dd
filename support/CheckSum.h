#pragma once

/**
 * The 32-bit check sum that both ends of an update transfer compute: CRC-32 as in IEEE 802.3 (reflected,
 * initial and final complement). The value of nothing is 0; of "123456789" it is 0xCBF43926.
 */
class CheckSum
{
public:
    /** Folds `length` bytes in. May be called any number of times; only the order of the bytes matters. */
    void Update(const void* data, unsigned int length);
    /**
     * Folds in what follows, `length` bytes whose own check sum is `following`: what several have summed up
     * piece by piece becomes one. Its cost does not grow with the length.
     */
    void Append(const CheckSum& following, unsigned long long length);
    /** The check sum of all bytes folded in so far; goes on from there. */
    unsigned int GetValue() const { return ~state_; }

private:
    unsigned int state_ = 0xFFFFFFFFU;
};
